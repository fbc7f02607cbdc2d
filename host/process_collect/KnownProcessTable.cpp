#include "KnownProcessTable.h"

namespace Engine {

namespace {

constexpr unsigned int kUnknownId = 0xFFFFFFFFu;

// Unknown on either side is no evidence of a change.
bool Differs(unsigned int known, unsigned int seen) {
    return known != kUnknownId && seen != kUnknownId && known != seen;
}

bool UserChanged(const KnownProcess& known, const KnownProcess& seen) {
    return Differs(known.uid, seen.uid) || Differs(known.euid, seen.euid) || Differs(known.suid, seen.suid);
}

bool GroupChanged(const KnownProcess& known, const KnownProcess& seen) {
    return Differs(known.gid, seen.gid) || Differs(known.egid, seen.egid) || Differs(known.sgid, seen.sgid);
}

}  // namespace

KnownProcess KnownProcess::FromRecord(const ProcsMessage::procInfo& record) {
    KnownProcess state;
    state.ppid = record.ppid;
    state.startTime = record.startTime;
    state.uid = record.uid;
    state.euid = record.euid;
    state.suid = record.suid;
    state.gid = record.gid;
    state.egid = record.egid;
    state.sgid = record.sgid;
    state.capSetuid = record.capSetuid;
    state.capSetgid = record.capSetgid;
    return state;
}

void KnownProcessTable::Reset(const std::map<int, KnownProcess>& live) {
    table_ = live;
}

void KnownProcessTable::Apply(const ProcEvent& event) {
    if (!event.IsProcessLevel()) {
        return;
    }
    switch (event.kind) {
        case ProcEvent::Kind::kFork: {
            // A child starts with its parent's credentials.
            KnownProcess child;
            const auto parent = table_.find(event.parentTgid);
            if (parent != table_.end()) {
                child = parent->second;
                child.startTime = -1;
            }
            child.ppid = event.parentTgid;
            table_[event.tgid] = child;
            break;
        }
        case ProcEvent::Kind::kUid: {
            KnownProcess& state = table_[event.tgid];
            state.uid = event.realId;
            state.euid = event.effectiveId;
            state.suid = kUnknownId;  // not carried by the event
            break;
        }
        case ProcEvent::Kind::kGid: {
            KnownProcess& state = table_[event.tgid];
            state.gid = event.realId;
            state.egid = event.effectiveId;
            state.sgid = kUnknownId;
            break;
        }
        case ProcEvent::Kind::kExit:
            table_.erase(event.tgid);
            break;
        default:
            break;
    }
}

void KnownProcessTable::Update(int pid, const KnownProcess& state) {
    table_[pid] = state;
}

std::vector<KnownProcessTable::Change> KnownProcessTable::Reconcile(const std::map<int, KnownProcess>& live) {
    std::vector<Change> changes;
    auto known = table_.begin();
    for (const auto& [pid, seen] : live) {
        while (known != table_.end() && known->first < pid) {
            changes.push_back({known->first, PROCS_EVENT_EXIT, known->second});
            ++known;
        }
        if (known == table_.end() || known->first != pid) {
            changes.push_back({pid, PROCS_EVENT_FORK, KnownProcess()});
            continue;
        }
        const KnownProcess& before = known->second;
        if (before.startTime >= 0 && seen.startTime >= 0 && before.startTime != seen.startTime) {
            // The pid was reused: the old process ended and a new one began.
            changes.push_back({pid, PROCS_EVENT_EXIT, before});
            changes.push_back({pid, PROCS_EVENT_FORK, KnownProcess()});
        } else {
            if (UserChanged(before, seen)) {
                changes.push_back({pid, PROCS_EVENT_UID, before});
            }
            if (GroupChanged(before, seen)) {
                changes.push_back({pid, PROCS_EVENT_GID, before});
            }
        }
        ++known;
    }
    for (; known != table_.end(); ++known) {
        changes.push_back({known->first, PROCS_EVENT_EXIT, known->second});
    }
    table_ = live;
    return changes;
}

const KnownProcess* KnownProcessTable::Find(int pid) const {
    const auto it = table_.find(pid);
    return it == table_.end() ? nullptr : &it->second;
}

}  // namespace Engine
