#include "feature_detroot/ProcDetRootRecords.h"

#include <iterator>

#include "sdk/ProcessUtils.h"

namespace Engine {

void ProcDetRootRecords::AddRootBirth(int pid, int64_t startTime, bool suidDescendant) {
    RootProcInfo& info = roots_[pid];
    info.startTime = startTime;
    info.parentMarked = false;
    info.uidDropped = false;
    info.suidDescendant = suidDescendant;
}

void ProcDetRootRecords::MarkParent(int pid, int64_t startTime) {
    const auto it = roots_.find(pid);
    if (it != roots_.end() && it->second.startTime == startTime && !it->second.uidDropped) {
        it->second.parentMarked = true;
    }
}

void ProcDetRootRecords::DropIdentity(int pid, int64_t startTime) {
    const auto it = roots_.find(pid);
    if (it != roots_.end() && it->second.startTime == startTime && !it->second.parentMarked) {
        it->second.uidDropped = true;
        it->second.suidDescendant = false;
    }
}

bool ProcDetRootRecords::IsSuidDescendant(int pid, int64_t startTime) const {
    const auto it = roots_.find(pid);
    return it != roots_.end() && it->second.startTime == startTime && it->second.suidDescendant;
}

bool ProcDetRootRecords::IsBornRoot(int pid, int64_t startTime) const {
    const auto it = roots_.find(pid);
    return it != roots_.end() && it->second.startTime == startTime && !it->second.uidDropped;
}

ProcDetRootRecords::ProcInfoPtr ProcDetRootRecords::FindFork(int pid) const {
    const auto it = forked_.find(pid);
    return it == forked_.end() ? nullptr : it->second;
}

std::vector<int> ProcDetRootRecords::ForkedPids() const {
    std::vector<int> pids;
    pids.reserve(forked_.size());
    for (const auto& entry : forked_) {
        pids.push_back(entry.first);
    }
    return pids;
}

void ProcDetRootRecords::DropDeadRootRecords() {
    for (auto it = roots_.begin(); it != roots_.end();) {
        if (SDK::ProcessUtils::IsProcessAlive(static_cast<unsigned int>(it->first))) {
            ++it;
        } else {
            it = roots_.erase(it);
        }
    }
}

void ProcDetRootRecords::DropGoneForkRecords(const ProcsFullTask::ProcsMap& procs) {
    for (auto it = forked_.begin(); it != forked_.end();) {
        const auto live = procs.find(it->first);
        bool gone;
        if (live != procs.end() && live->second) {
            // A later start time is a new process on the pid. An earlier one is a
            // table taken before this record's fork event: the record stays.
            gone = live->second->startTime > it->second->startTime;
        } else {
            gone = !SDK::ProcessUtils::IsProcessAlive(static_cast<unsigned int>(it->first));
        }
        it = gone ? forked_.erase(it) : std::next(it);
    }
}

}  // namespace Engine
