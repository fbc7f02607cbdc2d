#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "KnownProcessTable.h"
#include "ProcEvent.h"
#include "ProcTableScanner.h"
#include "collect/ProcsMessage.h"

namespace Engine {

// Builds the record of a process event from /proc, true to the moment of the
// event: a fork's record describes the child as it was at the fork, a process gone
// before it could be read gets a record built from the event itself. Used by the
// event task's thread only.
class EventRecordReader {
public:
    // Both outlive the reader; `known` is the event task's table of processes.
    EventRecordReader(ProcTableScanner& scanner, const KnownProcessTable& known);

    // The process as /proc shows it now, with its parent's path and start time; null when gone.
    std::shared_ptr<ProcsMessage::procInfo> Read(int pid);

    // A child runs its parent's program with its parent's arguments until it
    // executes another (an EXEC event of its own), so a fork's path and command
    // line are the parent's, read once for a storm of its forks; only the child's
    // stat, status and executable link are read. `movedOn` tells whether the child
    // already ran another program when its status was read: its credentials may
    // then be those the new program gave it. Null when the child is gone.
    std::shared_ptr<ProcsMessage::procInfo> ReadFork(int pid, int parentPid, bool& movedOn);

    // Puts the credentials a child had at its fork, its parent's, into `record`:
    // the parent's as read now (a parent rarely changes right after a fork, a child
    // often executes at once), else as last known.
    void TakeCredentialsAtFork(ProcsMessage::procInfo& record, int parentPid);

    // True when `record` no longer runs its parent's program (or the parent is gone).
    bool RunsAnotherProgramThanItsParent(const ProcsMessage::procInfo& record);

    // For a process gone before it was read: pid, ppid (a fork's parent, else the
    // last known), for UID/GID events the new ids; the rest unknown.
    std::shared_ptr<ProcsMessage::procInfo> FromEvent(const ProcEvent& event, unsigned int flag);
    // The last known state of a process (for EXIT).
    static std::shared_ptr<ProcsMessage::procInfo> FromKnown(int pid, const KnownProcess& state);

    // A parent that executed or exited has other facts now.
    void ForgetParent(int pid) { parents_.erase(pid); }
    void ForgetParents() { parents_.clear(); }

private:
    struct ParentFacts {
        int64_t startTime;
        std::string exePath;
        std::string cmdline;
    };
    // A parent's facts, from the cache when it has neither executed nor exited
    // since they were read (a storm of forks has one parent); null when it is gone.
    const ParentFacts* FindParent(int ppid);
    // The parent's path and start time.
    void FillParentFields(ProcsMessage::procInfo& record);

    ProcTableScanner& scanner_;
    const KnownProcessTable& known_;
    std::unordered_map<int, ParentFacts> parents_;
};

}  // namespace Engine
