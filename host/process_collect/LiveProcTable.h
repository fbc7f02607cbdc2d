#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <set>

#include "ProcChangeLog.h"
#include "ProcTableScanner.h"
#include "collect/ProcsFullTask.h"

namespace Engine {

// The table behind "procs_full_task". While the event producer notes what
// changes (ProcChangeLog live), a refresh re-reads only the pids that forked,
// executed, changed identity or name, or exited (and the children of those that
// exited, which the kernel re-parents without an event); /proc is rescanned
// whole at the first refresh, after lost events and every kFullScanMs as a
// safety net (changes that come with no event, such as capset(2) or a program
// rewriting its own command line, are seen then). Without live notes every
// refresh is a rescan. Readers get a copy of the last table.
class LiveProcTable {
public:
    static constexpr long long kFullScanMs = 10 * 60 * 1000;

    explicit LiveProcTable(int refreshSeconds);
    ~LiveProcTable();

    void Follow(std::shared_ptr<ProcChangeLog> log);
    void SetRefreshSeconds(int seconds);

    // Fills `out` with a table at most the refresh interval old; safe from any thread.
    int Get(ProcsFullTask::ProcsMap& out);

    // Rescans of the whole of /proc so far (for tests and benchmarks).
    unsigned long GetFullScanCount() const { return fullScans_.load(); }

private:
    using ProcsMap = ProcsFullTask::ProcsMap;

    void Refresh();  // holds refreshMutex_
    void EnsureScanner();
    // Re-reads `pid` into `table` (or drops it when gone); a zombie is watched.
    void Reread(int pid, ProcsMap& table);
    void Apply(const ProcChangeLog::Changes& changes, ProcsMap& table);
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
    // Zombies stay listed until reaped, which comes with no event: they are read
    // again at every refresh until they are gone.
    std::set<int> zombies_;
    std::vector<int> scannedZombies_;
    ProcChangeLog::Changes changes_;
    std::atomic<unsigned long> fullScans_{0};
};

}  // namespace Engine
