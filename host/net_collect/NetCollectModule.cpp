#include "NetCollectModule.h"

#include <new>

#include "NetCollectLog.h"
#include "collect/NetProcsFullTask.h"

namespace Engine {

NetCollectModule::NetCollectModule() : Framework::Module("net_collect_module") {}

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
        NetCollectLog::Error("net_collect_module: out of memory creating its task");
        result = -1;
    } else {
        task_->SetTaskEnabled(true);
        result = RegisterTask(task_, true);
    }
    const int base = Framework::Module::Init();
    return result != 0 ? result : base;
}

}  // namespace Engine

extern "C" void* CreateModule() {
    return static_cast<Framework::Module*>(new (std::nothrow) Engine::NetCollectModule());
}
