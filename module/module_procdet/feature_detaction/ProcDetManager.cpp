#include "feature_detaction/ProcDetManager.h"

#include <unistd.h>

#include <ctime>

#include "ProcDetLog.h"
#include "collect/ProcsFullTask.h"
#include "framework/Engine.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {

// Log lines and CPU governor calls name the class, not this file.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detaction/ProcDetManager";

}  // namespace

namespace {

constexpr const char* kTaskName = "detaction_full_task";

// The host's process snapshot; empty when the collect task is not running.
void GetProcessTable(ProcsFullTask::ProcsMap& table) {
    Framework::Engine* engine = Framework::Engine::Instance();
    if (engine == nullptr) {
        return;
    }
    auto* procs = dynamic_cast<ProcsFullTask*>(engine->FindTask(ProcsFullTask::kTaskName));
    if (procs != nullptr) {
        procs->GetProcsMap(table);
    }
}

}  // namespace

ProcDetManager::~ProcDetManager() {
    Clean();
}

void ProcDetManager::Init(Framework::Task* task, void* notifyContext) {
    task_ = task;
    notifyContext_ = notifyContext;
    logger_ = GetProcDetLogger();
}

void ProcDetManager::AddDetector(ProcDetBase* detector, int interval) {
    if (detector == nullptr) {
        return;
    }
    detectors_.push_back(DetectorEntry{detector, interval, interval});
}

bool ProcDetManager::IsStopping(const Framework::Task* task) {
    return task != nullptr && task->state() == Poco::Task::TASK_CANCELLING;
}

void ProcDetManager::PrepareAllDetector(int elapsed, DetectorList& prepared) {
    for (DetectorEntry& entry : detectors_) {
        entry.countdown -= elapsed;
        if (entry.countdown > 0) {
            continue;
        }
        // Overrun time is dropped: a late cycle does not make the next one come sooner.
        entry.countdown = entry.interval;
        if (entry.detector->Prepare()) {
            prepared.push_back(entry.detector);
        } else {
            PROCDET_DEBUG(logger_, "prepare %s failed.", entry.detector->GetName());
        }
    }
    PROCDET_DEBUG(logger_, "prepared detector : %lu", static_cast<unsigned long>(prepared.size()));
}

void ProcDetManager::Check(int elapsed, const Framework::Task* task) {
    const int selfPid = static_cast<int>(getpid());
    const long now = static_cast<long>(time(nullptr));
    bool changed = false;
    DetectorList prepared;

    PrepareAllDetector(elapsed, prepared);
    if (!IsStopping(task) && !prepared.empty()) {
        // Detectors that quit are dropped from `active` only; all prepared ones are finished.
        DetectorList active = prepared;
        ProcsFullTask::ProcsMap table;
        GetProcessTable(table);
        for (const auto& [pid, proc] : table) {
            if (IsStopping(task)) {
                break;
            }
            if (pid == selfPid || proc == nullptr || ignoreFilepaths_.count(proc->exePath) != 0) {
                continue;
            }
            unsigned int flags = 0;
            NumDetails numDetails;
            StrDetails strDetails;
            CheckWithDetectors(proc, active, numDetails, strDetails, flags, task);
            if (flags != 0 && SDK::ProcessUtils::IsProcessAlive(static_cast<unsigned int>(pid))) {
                RecordCheckResult(proc, now, static_cast<int>(flags), numDetails, strDetails, changed);
            }
            PROCDET_PACE_CPU(kTaskName);
        }
        PROCDET_DEBUG(logger_, "CHECK FINISHED");
    }

    for (ProcDetBase* detector : prepared) {
        detector->Finish();
    }
    CleanAndNotify(now, changed);
}

void ProcDetManager::CheckWithDetectors(ProcRecord proc, DetectorList& detectors, NumDetails& numDetails,
                                        StrDetails& strDetails, unsigned int& flags,
                                        const Framework::Task* task) {
    flags = 0;
    auto it = detectors.begin();
    while (!IsStopping(task) && it != detectors.end()) {
        ProcDetBase* detector = *it;
        const bool ok = detector->CheckProcess(proc, flags, numDetails, strDetails);
        if (flags != 0) {
            PROCDET_DEBUG(logger_, "%s\tis checked pid %d. %b, %u", detector->GetName(), proc->pid, ok,
                          flags);
        }
        if (ok) {
            ++it;
        } else {
            it = detectors.erase(it);
            PROCDET_DEBUG(logger_, "%s QUIT when checking %d %s", detector->GetName(), proc->pid,
                          proc->exePath);
        }
        if (PROCDET_PACE_CPU(kTaskName) && IsStopping(task)) {
            return;
        }
    }
}

}  // namespace Engine
