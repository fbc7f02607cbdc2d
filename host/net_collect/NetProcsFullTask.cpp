#include "collect/NetProcsFullTask.h"

#include "NetCollectModule.h"
#include "ProcNetTcpSource.h"
#include "SockDiagSource.h"
#include "sdk/HostLog.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

NetProcsFullTask::NetProcsFullTask(int refreshSeconds)
    : Framework::Task(kTaskName, "net_collect_feature", Framework::TaskCondition::TASK_TYPE_RESIDENT, 0),
      snapshot_(refreshSeconds) {}

NetProcsFullTask::~NetProcsFullTask() = default;

int NetProcsFullTask::GetNetCacheMap(NetMap& out) {
    return snapshot_.Get(out, [this](NetMap& fresh) { Collect(fresh); });
}

void NetProcsFullTask::SetRefreshSeconds(int seconds) {
    snapshot_.SetRefreshSeconds(seconds);
}

int NetProcsFullTask::Run() {
    // Refreshed on demand only: nobody may ask for weeks.
    while (!sleep(1000)) {
    }
    return 0;
}

void NetProcsFullTask::Collect(NetMap& fresh) {
    if (!source_) {
        // sock_diag measured faster than parsing /proc/net/tcp (bench/README.md).
        source_ = std::make_unique<SockDiagSource>();
        fallback_ = std::make_unique<ProcNetTcpSource>(SDK::ProcessUtils::GetProcRoot());
    }
    std::string error;
    if (!source_->Collect(fresh, error)) {
        if (fallback_) {
            HOST_MODULE_LOG_ERROR(kNetCollectModuleName,
                                  std::string("connections through ") + source_->Name() + " failed (" +
                                      error + "); using " + fallback_->Name() + " from now on");
            source_ = std::move(fallback_);
            error.clear();
            if (!source_->Collect(fresh, error)) {
                HOST_MODULE_LOG_ERROR(kNetCollectModuleName, std::string("connections through ") +
                                                                 source_->Name() + " failed: " + error);
            }
        } else {
            HOST_MODULE_LOG_ERROR(kNetCollectModuleName, std::string("connections through ") +
                                                             source_->Name() + " failed: " + error);
        }
    }
}

}  // namespace Engine
