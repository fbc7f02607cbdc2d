#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "collect/ProcsFullTask.h"
#include "collect/ProcsMessage.h"
#include "feature_detroot/RootProcInfo.h"

namespace Engine {

// What the privilege-escalation task remembers between full checks: the processes
// born to a privileged parent (root records), and the processes forked by plain
// users as they were at fork time (fork records), to compare with later. Records
// carry the process's start time, so a record of an earlier process on a reused pid
// counts as absent.
class ProcDetRootRecords {
public:
    using ProcInfoPtr = std::shared_ptr<ProcsMessage::procInfo>;

    // A child of a parent with capabilities or root's identity; a fresh record
    // replaces an earlier process's on the pid.
    void AddRootBirth(int pid, int64_t startTime, bool suidDescendant);
    // The parent forked while holding capabilities: its later drop of identity no
    // longer counts, since its children were recorded as its legitimate offspring.
    void MarkParent(int pid, int64_t startTime);
    // The process gave up its user identities: no longer born root.
    void DropIdentity(int pid, int64_t startTime);
    void AddFork(int pid, const ProcInfoPtr& record) { forked_[pid] = record; }

    bool IsSuidDescendant(int pid, int64_t startTime) const;
    bool IsBornRoot(int pid, int64_t startTime) const;
    // The fork record of `pid`, or null.
    ProcInfoPtr FindFork(int pid) const;
    std::vector<int> ForkedPids() const;

    // Drops the root records of processes that are no longer alive.
    void DropDeadRootRecords();
    // Drops the fork records of processes that are gone: not in `procs` (the full
    // check's table) and not alive, or whose pid the table shows for a process
    // started later.
    void DropGoneForkRecords(const ProcsFullTask::ProcsMap& procs);

    size_t RootCount() const { return roots_.size(); }
    size_t ForkCount() const { return forked_.size(); }

private:
    std::map<int, ProcInfoPtr> forked_;
    std::map<int, RootProcInfo> roots_;
};

}  // namespace Engine
