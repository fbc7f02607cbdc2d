#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "ProcEvent.h"
#include "collect/ProcsMessage.h"

namespace Engine {

// What the event producer last knew about one process. Identities of
// 0xFFFFFFFF and a start time of -1 are unknown and never reported as changed.
struct KnownProcess {
    int ppid = 0;
    int64_t startTime = -1;
    unsigned int uid = 0xFFFFFFFFu, euid = 0xFFFFFFFFu, suid = 0xFFFFFFFFu;
    unsigned int gid = 0xFFFFFFFFu, egid = 0xFFFFFFFFu, sgid = 0xFFFFFFFFu;
    unsigned int capSetuid = 0, capSetgid = 0;  // as last read; no event tells of a change

    static KnownProcess FromRecord(const ProcsMessage::procInfo& record);
};

// The processes the event producer believes alive, kept up to date by the
// events, so that a rescan of /proc (after lost events, or instead of events)
// can tell what was missed.
class KnownProcessTable {
public:
    struct Change {
        int pid;
        unsigned int flag;    // PROCS_EVENT_FORK, _UID, _GID or _EXIT
        KnownProcess before;  // for _EXIT: the last known state
    };

    // Takes `live` as the truth without reporting anything.
    void Reset(const std::map<int, KnownProcess>& live);

    // Follows one event (process-level events only; thread events are ignored).
    void Apply(const ProcEvent& event);

    // Records a freshly read state of one process.
    void Update(int pid, const KnownProcess& state);

    // Compares a rescan with the table: a pid not known (or known with another
    // start time) is a FORK, changed user or group identities are UID / GID,
    // a known pid missing from the rescan is EXIT. The table then takes `live`.
    std::vector<Change> Reconcile(const std::map<int, KnownProcess>& live);

    // Null when unknown.
    const KnownProcess* Find(int pid) const;
    size_t Size() const { return table_.size(); }

private:
    std::map<int, KnownProcess> table_;
};

}  // namespace Engine
