#include "collect/ProcsFullTask.h"

#include "ProcTableScanner.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

ProcsFullTask::ProcsFullTask(int refreshSeconds)
    : Framework::Task(kTaskName, "procs_collect_feature", Framework::TaskCondition::TASK_TYPE_RESIDENT, 0),
      snapshot_(refreshSeconds) {}

ProcsFullTask::~ProcsFullTask() = default;

int ProcsFullTask::GetProcsMap(ProcsMap& out) {
    // The records are shared between copies and never changed after a scan.
    return snapshot_.Get(out, [this](ProcsMap& fresh) { TakeSnapshot(fresh); });
}

void ProcsFullTask::SetRefreshSeconds(int seconds) {
    snapshot_.SetRefreshSeconds(seconds);
}

int ProcsFullTask::Run() {
    // Snapshots are taken on demand only: a background refresh would cost CPU
    // on a host where nobody asks for hours.
    while (!sleep(1000)) {
    }
    return 0;
}

void ProcsFullTask::TakeSnapshot(ProcsMap& fresh) {
    const std::string& root = SDK::ProcessUtils::GetProcRoot();
    if (!scanner_ || scanner_->GetRoot() != root) {
        scanner_ = std::make_unique<ProcTableScanner>(root);
    }
    scanner_->TakeSnapshot(fresh);
}

}  // namespace Engine
