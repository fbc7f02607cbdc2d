#include "ProcessCollectModule.h"

#include <new>

#include "ProcessCollectLog.h"
#include "ProcsRealTask.h"
#include "collect/ProcsFullTask.h"

namespace Engine {

ProcessCollectModule::ProcessCollectModule() : Framework::Module("process_collect_module") {}

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
        fullTask_ = new (std::nothrow) ProcsFullTask();
    }
    if (realTask_ == nullptr) {
        realTask_ = new (std::nothrow) ProcsRealTask();
    }
    int result = 0;
    for (Framework::Task* task :
         {static_cast<Framework::Task*>(fullTask_), static_cast<Framework::Task*>(realTask_)}) {
        if (task == nullptr) {
            ProcessCollectLog::Error("process_collect_module: out of memory creating its tasks");
            result = -1;
            continue;
        }
        task->SetTaskEnabled(true);
        if (RegisterTask(task, true) != 0) {
            result = -1;
        }
    }
    const int base = Framework::Module::Init();
    return result != 0 ? result : base;
}

}  // namespace Engine

extern "C" void* CreateModule() {
    return static_cast<Framework::Module*>(new (std::nothrow) Engine::ProcessCollectModule());
}
