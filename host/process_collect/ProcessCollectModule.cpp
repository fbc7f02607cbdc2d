#include "ProcessCollectModule.h"

#include <new>

#include "LiveProcsFullTask.h"
#include "ProcChangeLog.h"
#include "ProcsRealTask.h"
#include "collect/CollectSettings.h"
#include "framework/PolicyCallback.h"
#include "sdk/HostLog.h"
#include "sdk/JsonUtils.h"

namespace Engine {

ProcessCollectModule::ProcessCollectModule() : Framework::Module(kProcessCollectModuleName) {}

ProcessCollectModule::~ProcessCollectModule() {
    if (realTask_ != nullptr) {
        realTask_->release();
    }
    if (fullTask_ != nullptr) {
        fullTask_->release();
    }
}

int ProcessCollectModule::Init() {
    if (fullTask_ == nullptr) {
        fullTask_ = new (std::nothrow) LiveProcsFullTask();
    }
    if (realTask_ == nullptr) {
        realTask_ = new (std::nothrow) ProcsRealTask();
        if (realTask_ != nullptr && fullTask_ != nullptr) {
            // The process table follows the changes the event task sees.
            auto changes = std::make_shared<ProcChangeLog>();
            realTask_->NoteChangesIn(changes);
            fullTask_->FollowChanges(changes);
        }
    }
    int result = 0;
    for (Framework::Task* task :
         {static_cast<Framework::Task*>(fullTask_), static_cast<Framework::Task*>(realTask_)}) {
        if (task == nullptr) {
            HOST_MODULE_LOG_ERROR(kProcessCollectModuleName,
                                  "process_collect_module: out of memory creating its tasks");
            result = -1;
            continue;
        }
        task->SetTaskEnabled(true);
        if (RegisterTask(task, true) != 0) {
            result = -1;
        }
    }
    RegisterPolicyCallback(kProcsCollectSettingsId, new Framework::PolicyCallback<ProcessCollectModule>(
                                                        this, &ProcessCollectModule::RefreshSettings));
    const int base = Framework::Module::Init();
    return result != 0 ? result : base;
}

Framework::Policy* ProcessCollectModule::RefreshSettings(const std::string& /*featureName*/,
                                                         const std::string& content,
                                                         Framework::Policy*& /*current*/) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(content.c_str(), content.size(), root) != 0) {
        return nullptr;
    }
    if (fullTask_ != nullptr) {
        fullTask_->SetRefreshSeconds(SDK::JsonUtils::GetIntValue(root, kRefreshSecondsKey, 3));
    }
    const int backlogMib = SDK::JsonUtils::GetIntValue(root, kEventBacklogMibKey, 0);
    if (realTask_ != nullptr && backlogMib > 0) {
        realTask_->SetBacklogLimit(static_cast<size_t>(backlogMib) << 20);
    }
    return nullptr;
}

}  // namespace Engine

extern "C" void* CreateModule() {
    return static_cast<Framework::Module*>(new (std::nothrow) Engine::ProcessCollectModule());
}
