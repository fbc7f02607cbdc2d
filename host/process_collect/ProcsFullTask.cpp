#include "collect/ProcsFullTask.h"

#include "LiveProcTable.h"

namespace Engine {

ProcsFullTask::ProcsFullTask(int refreshSeconds)
    : Framework::Task(kTaskName, "procs_collect_feature", Framework::TaskCondition::TASK_TYPE_RESIDENT, 0),
      table_(std::make_unique<LiveProcTable>(refreshSeconds)) {}

ProcsFullTask::~ProcsFullTask() = default;

int ProcsFullTask::GetProcsMap(ProcsMap& out) {
    // The records are shared between copies and never changed once published.
    return table_->Get(out);
}

int ProcsFullTask::GetProcsMapFresh(ProcsMap& out, const std::vector<int>& compared) {
    return table_->Get(out, &compared);
}

void ProcsFullTask::SetRefreshSeconds(int seconds) {
    table_->SetRefreshSeconds(seconds);
}

void ProcsFullTask::FollowChanges(std::shared_ptr<ProcChangeLog> log) {
    table_->Follow(std::move(log));
}

unsigned long ProcsFullTask::GetFullScanCount() const {
    return table_->GetFullScanCount();
}

int ProcsFullTask::Run() {
    // The table is brought up to date on demand only: a background refresh would
    // cost CPU on a host where nobody asks for hours.
    while (!sleep(1000)) {
    }
    return 0;
}

}  // namespace Engine
