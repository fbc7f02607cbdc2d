#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ProcFsReader.h"
#include "ProcRecordParser.h"
#include "collect/ProcsFullTask.h"

namespace Engine {

// Builds process records from a /proc tree: the whole table (snapshot) or one
// pid at a time (events). Read errors other than a process vanishing are
// counted; the first of each scan is kept for the log.
class ProcTableScanner {
public:
    explicit ProcTableScanner(const std::string& procRoot);

    const std::string& GetRoot() const { return reader_.GetRoot(); }

    // Numeric entries of the root, ascending. False when the root cannot be listed.
    bool ListPids(std::vector<int>& pids, std::string& error) const;

    // Every live process with its parent's path and start time filled in from
    // the same table; the pids of zombies go to `zombies` when given. A process
    // read exactly as in `previous` keeps that record (shared, never modified),
    // so a rescan of an unchanged host allocates next to nothing. Returns false
    // (and logs) when the root cannot be listed.
    bool TakeSnapshot(ProcsFullTask::ProcsMap& out, std::vector<int>* zombies = nullptr,
                      const ProcsFullTask::ProcsMap* previous = nullptr);

    // One process's record (parts as in ProcFsReader; stat is always read). False
    // when the process is gone or its stat is unreadable. `zombie`, when given,
    // tells whether the process has exited and waits to be reaped.
    bool ReadRecord(int pid, unsigned parts, ProcsMessage::procInfo& out, bool* zombie = nullptr);

    // The target of /proc/PID/exe: errno or 0 (ENOENT: the process is gone or has
    // no executable, as kernel threads and zombies).
    int ReadExeLink(int pid, std::string& out) const;

    // Errors counted since the last TakeSnapshot / ResetErrors, and the first one.
    unsigned long GetErrorCount() const { return errorCount_; }
    const std::string& GetFirstError() const { return firstError_; }
    void ResetErrors();

private:
    const ProcRecordParser& Parser();
    void NoteError(int pid, const char* part, int error);

    ProcFsReader reader_;
    std::unique_ptr<ProcRecordParser> parser_;
    unsigned long errorCount_ = 0;
    std::string firstError_;
    std::string lastLoggedError_;  // first error of the last snapshot that logged one
};

}  // namespace Engine
