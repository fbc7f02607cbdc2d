#include "collect/ProcsFullTask.h"

#include <algorithm>
#include <chrono>

#include "ProcTableScanner.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {

long long SteadyNowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

ProcsFullTask::ProcsFullTask(int refreshSeconds)
    : Framework::Task(kTaskName, "procs_collect_feature", Framework::TaskCondition::TASK_TYPE_RESIDENT, 0),
      refreshSeconds_(std::max(1, refreshSeconds)) {}

ProcsFullTask::~ProcsFullTask() = default;

int ProcsFullTask::GetProcsMap(ProcsMap& out) {
    RefreshIfStale();
    std::shared_ptr<const ProcsMap> snapshot;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        snapshot = snapshot_;
    }
    // Copying the map outside the lock keeps readers from holding each other up;
    // the records themselves are shared and never changed after a scan.
    if (snapshot) {
        out = *snapshot;
    } else {
        out.clear();
    }
    return static_cast<int>(out.size());
}

void ProcsFullTask::SetRefreshSeconds(int seconds) {
    refreshSeconds_.store(std::max(1, seconds));
}

int ProcsFullTask::Run() {
    // Snapshots are taken on demand only: a background refresh would cost CPU
    // on a host where nobody asks for hours.
    while (!sleep(1000)) {
    }
    return 0;
}

void ProcsFullTask::RefreshIfStale() {
    std::lock_guard<std::mutex> refreshLock(refreshMutex_);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (snapshot_ && SteadyNowMs() - takenAtMs_ < refreshSeconds_.load() * 1000LL) {
            return;
        }
    }
    const std::string& root = SDK::ProcessUtils::GetProcRoot();
    if (!scanner_ || scanner_->GetRoot() != root) {
        scanner_ = std::make_unique<ProcTableScanner>(root);
    }
    auto fresh = std::make_shared<ProcsMap>();
    scanner_->TakeSnapshot(*fresh);
    const long long takenAt = SteadyNowMs();
    std::lock_guard<std::mutex> lock(mutex_);
    snapshot_ = std::move(fresh);
    takenAtMs_ = takenAt;
}

}  // namespace Engine
