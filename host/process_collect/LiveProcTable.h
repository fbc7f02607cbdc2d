#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_set>
#include <vector>

#include "ExecutableWatch.h"
#include "KeptProcessFiles.h"
#include "ProcChangeLog.h"
#include "ProcTableScanner.h"
#include "collect/ProcsFullTask.h"

namespace Engine {

// The table behind "procs_full_task". While the event producer notes what
// changes (ProcChangeLog live), a refresh re-reads only the pids that forked,
// executed, changed identity or name, or exited (and the children of those that
// exited, which the kernel re-parents without an event); /proc is rescanned
// whole at the first refresh, after lost events and every kFullScanMs as a
// safety net. Without live notes every refresh is a rescan. Readers get a copy
// of the last table; a record that changes is replaced, never modified.
//
// What changes with no event is read at every refresh too: the executable link
// of each process whose file is no longer at its path (ExecutableWatch), and,
// for the pids a reader names, the status (capabilities raised with capset(2))
// and command line (rewritten in place) of those processes and their parents.
class LiveProcTable {
public:
    static constexpr long long kFullScanMs = 10 * 60 * 1000;

    explicit LiveProcTable(int refreshSeconds);
    ~LiveProcTable();

    void Follow(std::shared_ptr<ProcChangeLog> log);
    void SetRefreshSeconds(int seconds);

    // Fills `out` with a table at most the refresh interval old; safe from any
    // thread. The status and command line of `compared` and of their parents
    // are read again when not read since the last refresh.
    int Get(ProcsFullTask::ProcsMap& out, const std::vector<int>* compared = nullptr);

    // Rescans of the whole of /proc so far (for tests and benchmarks).
    unsigned long GetFullScanCount() const { return fullScans_.load(); }

private:
    using ProcsMap = ProcsFullTask::ProcsMap;

    void Refresh();  // holds refreshMutex_
    void EnsureScanner();
    // Re-reads `pid` into `table` (or drops it when gone); a zombie is watched.
    void Reread(int pid, ProcsMap& table);
    void Apply(const ProcChangeLog::Changes& changes, ProcsMap& table);
    // Reads again the executable links that may have changed with no event; a
    // record that changed goes into `fresh`, a copy of `table` made on first need.
    void RecheckExecutables(const ProcsMap& table, std::shared_ptr<ProcsMap>& fresh);
    // The status and command line of `compared` and their parents, once per refresh.
    void RereadCompared(const std::vector<int>& compared);
    // Gives every record its parent's path and start time from `table`, copying
    // the records that change (published records are never modified).
    static void LinkParents(ProcsMap& table);

    std::atomic<int> refreshSeconds_;
    std::shared_ptr<ProcChangeLog> log_;  // set before the task runs

    std::mutex mutex_;  // guards snapshot_
    std::shared_ptr<const ProcsMap> snapshot_;

    std::mutex refreshMutex_;  // one refresh at a time; guards what follows
    long long refreshedAtMs_ = -1;
    long long fullScanAtMs_ = -1;
    std::unique_ptr<ProcTableScanner> scanner_;
    std::unique_ptr<ExecutableWatch> executables_;
    std::unique_ptr<KeptProcessFiles> comparedFiles_;
    std::unordered_set<int> justRead_;      // pids read in this refresh
    std::unordered_set<int> comparedRead_;  // compared pids read since the last refresh
    std::vector<int> suspects_;
    // Zombies stay listed until reaped, which comes with no event: they are read
    // again at every refresh until they are gone.
    std::set<int> zombies_;
    std::vector<int> scannedZombies_;
    ProcChangeLog::Changes changes_;
    std::atomic<unsigned long> fullScans_{0};
};

}  // namespace Engine
