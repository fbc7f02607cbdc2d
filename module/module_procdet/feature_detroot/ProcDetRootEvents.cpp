#include "ProcDetLog.h"
#include "feature_detroot/ProcDetRootFullTask.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {

// Log lines and CPU governor calls name the class, not this file.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detroot/ProcDetRootFullTask";

}  // namespace

void ProcDetRootFullTask::ProcsMessageAction(int pid, unsigned int flag, ProcInfoPtr record) {
    if (!record) {
        return;
    }
    PROCDET_PACE_CPU(kTaskName);
    if (flag == PROCS_EVENT_UID) {
        // Only a change to non-root real and effective users is a drop.
        if (record->uid == 0 || record->euid == 0) {
            return;
        }
        PROCDET_DEBUG(logger_, "recvdetroot uid pid %d, uid %u", pid, record->uid);
        const auto it = rootProcs_.find(pid);
        // A process that forked while privileged keeps its birth: its children were
        // recorded as its legitimate offspring.
        if (it != rootProcs_.end() && it->second.startTime == record->startTime && !it->second.parentMarked) {
            it->second.uidDropped = true;
            it->second.suidDescendant = false;
        }
    } else if (flag == PROCS_EVENT_FORK) {
        EventCheckFork(pid, record);
    }
}

void ProcDetRootFullTask::EventCheckFork(int pid, ProcInfoPtr record) {
    if (!record) {
        return;
    }
    // Read now, not at fork time: a parent that is gone leaves the status unknown,
    // which counts as a non-root parent without capabilities.
    SDK::ProcessUtils::procStatus parentStatus;
    SDK::ProcessUtils::GetProcessStatusInfo(record->ppid, parentStatus);
    const bool parentHasCaps = parentStatus.capEff != 0;
    const bool parentIsRoot = parentStatus.fsuid == 0;

    if (parentHasCaps || parentIsRoot) {
        const bool suidRoot = IsSuidRoot(record->ppid, record->parentExePath, record->parentStartTime);
        if (suidRoot) {
            PROCDET_DEBUG(logger_, "add suid process %d", pid);
        }
        RootProcInfo& info = rootProcs_[pid];
        info.startTime = record->startTime;
        info.parentMarked = false;
        info.uidDropped = false;
        info.suidDescendant = suidRoot;

        if (parentHasCaps) {
            const auto parent = rootProcs_.find(record->ppid);
            if (parent != rootProcs_.end() && parent->second.startTime == record->parentStartTime &&
                !parent->second.uidDropped) {
                parent->second.parentMarked = true;
            }
        }
        // Children of root are root by birth; there is no rise to compare against.
        if (parentIsRoot) {
            return;
        }
    }
    forkedProcs_[pid] = record;
}

bool ProcDetRootFullTask::IsSuidRoot(int pid, const std::string& path, int64_t startTime) const {
    if (path.empty()) {
        return false;
    }
    if (whiteList_.count(path) != 0) {
        return true;
    }
    if (startTime == 0) {
        return false;
    }
    return IsSuidDescendant(pid, startTime);
}

bool ProcDetRootFullTask::IsBornRoot(ProcInfoPtr record) const {
    if (!record) {
        return false;
    }
    const auto it = rootProcs_.find(record->pid);
    return it != rootProcs_.end() && it->second.startTime == record->startTime && !it->second.uidDropped;
}

}  // namespace Engine
