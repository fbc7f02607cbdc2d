#include "NetCollectModule.h"

#include <new>

#include "collect/CollectSettings.h"
#include "collect/NetProcsFullTask.h"
#include "framework/PolicyCallback.h"
#include "sdk/HostLog.h"
#include "sdk/JsonUtils.h"

namespace Engine {

NetCollectModule::NetCollectModule() : Framework::Module(kNetCollectModuleName) {}

NetCollectModule::~NetCollectModule() {
    if (task_ != nullptr) {
        task_->release();
    }
}

int NetCollectModule::Init() {
    if (task_ == nullptr) {
        task_ = new (std::nothrow) NetProcsFullTask();
    }
    int result = 0;
    if (task_ == nullptr) {
        HOST_MODULE_LOG_ERROR(kNetCollectModuleName, "net_collect_module: out of memory creating its task");
        result = -1;
    } else {
        task_->SetTaskEnabled(true);
        result = RegisterTask(task_, true);
    }
    RegisterPolicyCallback(kNetCollectSettingsId, new Framework::PolicyCallback<NetCollectModule>(
                                                      this, &NetCollectModule::RefreshSettings));
    const int base = Framework::Module::Init();
    return result != 0 ? result : base;
}

Framework::Policy* NetCollectModule::RefreshSettings(const std::string& /*featureName*/,
                                                     const std::string& content,
                                                     Framework::Policy*& /*current*/) {
    Json::Value root;
    if (task_ != nullptr && SDK::JsonUtils::ParseJsonStr(content.c_str(), content.size(), root) == 0) {
        task_->SetRefreshSeconds(SDK::JsonUtils::GetIntValue(root, kRefreshSecondsKey, 3));
    }
    return nullptr;
}

}  // namespace Engine

extern "C" void* CreateModule() {
    return static_cast<Framework::Module*>(new (std::nothrow) Engine::NetCollectModule());
}
