#include "LiveProcsFullTask.h"

#include "LiveProcTable.h"

namespace Engine {

LiveProcsFullTask::LiveProcsFullTask(int refreshSeconds)
    : table_(std::make_unique<LiveProcTable>(refreshSeconds)) {}

LiveProcsFullTask::~LiveProcsFullTask() = default;

int LiveProcsFullTask::GetProcsMap(ProcsMap& out) {
    // The records are shared between copies and never changed once published.
    return table_->Get(out);
}

int LiveProcsFullTask::GetProcsMapFresh(ProcsMap& out, const std::vector<int>& compared) {
    return table_->Get(out, &compared);
}

void LiveProcsFullTask::SetRefreshSeconds(int seconds) {
    table_->SetRefreshSeconds(seconds);
}

void LiveProcsFullTask::FollowChanges(std::shared_ptr<ProcChangeLog> log) {
    table_->Follow(std::move(log));
}

unsigned long LiveProcsFullTask::GetFullScanCount() const {
    return table_->GetFullScanCount();
}

int LiveProcsFullTask::Run() {
    // The table is brought up to date on demand only: a background refresh would
    // cost CPU on a host where nobody asks for hours.
    while (!sleep(1000)) {
    }
    return 0;
}

}  // namespace Engine
