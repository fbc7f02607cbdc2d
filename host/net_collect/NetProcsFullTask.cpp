#include "collect/NetProcsFullTask.h"

#include <algorithm>
#include <chrono>

#include "NetCollectLog.h"
#include "ProcNetTcpSource.h"
#include "SockDiagSource.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {

long long SteadyNowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

NetProcsFullTask::NetProcsFullTask(int refreshSeconds)
    : Framework::Task(kTaskName, "net_collect_feature", Framework::TaskCondition::TASK_TYPE_RESIDENT, 0),
      refreshSeconds_(std::max(1, refreshSeconds)) {}

NetProcsFullTask::~NetProcsFullTask() = default;

int NetProcsFullTask::GetNetCacheMap(NetMap& out) {
    RefreshIfStale();
    std::shared_ptr<const NetMap> snapshot;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        snapshot = snapshot_;
    }
    if (snapshot) {
        out = *snapshot;
    } else {
        out.clear();
    }
    return static_cast<int>(out.size());
}

void NetProcsFullTask::SetRefreshSeconds(int seconds) {
    refreshSeconds_.store(std::max(1, seconds));
}

int NetProcsFullTask::Run() {
    // Refreshed on demand only: nobody may ask for weeks.
    while (!sleep(1000)) {
    }
    return 0;
}

void NetProcsFullTask::RefreshIfStale() {
    std::lock_guard<std::mutex> refreshLock(refreshMutex_);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (snapshot_ && SteadyNowMs() - takenAtMs_ < refreshSeconds_.load() * 1000LL) {
            return;
        }
    }
    if (!source_) {
        // sock_diag measured faster than parsing /proc/net/tcp (bench/README.md).
        source_ = std::make_unique<SockDiagSource>();
        fallback_ = std::make_unique<ProcNetTcpSource>(SDK::ProcessUtils::GetProcRoot());
    }
    auto fresh = std::make_shared<NetMap>();
    std::string error;
    if (!source_->Collect(*fresh, error)) {
        if (fallback_) {
            NetCollectLog::Error(std::string("connections through ") + source_->Name() + " failed (" + error +
                                 "); using " + fallback_->Name() + " from now on");
            source_ = std::move(fallback_);
            error.clear();
            if (!source_->Collect(*fresh, error)) {
                NetCollectLog::Error(std::string("connections through ") + source_->Name() +
                                     " failed: " + error);
            }
        } else {
            NetCollectLog::Error(std::string("connections through ") + source_->Name() + " failed: " + error);
        }
    }
    const long long takenAt = SteadyNowMs();
    std::lock_guard<std::mutex> lock(mutex_);
    snapshot_ = std::move(fresh);
    takenAtMs_ = takenAt;
}

}  // namespace Engine
