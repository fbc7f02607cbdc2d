#include "framework/Module.h"

#include "framework/Engine.h"
#include "framework/Task.h"
#include "sdk/HostLog.h"

namespace Framework {

Module::Module(const std::string& name) : name_(name) {}

Module::~Module() {
    // A module deleted without UnInit must not leave tasks or a dangling entry behind.
    if (Engine* engine = Engine::Instance()) {
        engine->UnRegisterModuleTasks(this);
        engine->RemoveModule(this);
    }
}

const char* Module::name() const {
    return name_.c_str();
}

void Module::initialize(Poco::Util::Application& /*app*/) {}

void Module::uninitialize() {}

int Module::Init() {
    return 0;
}

int Module::UnInit() {
    if (Engine* engine = Engine::Instance()) {
        engine->UnRegisterModuleTasks(this);
    }
    return 0;
}

Policy* Module::RefreshPolicy(const std::string& id, const std::string& featureName,
                              const std::string& content, Policy*& current) {
    std::shared_ptr<AbstractPolicyCallback> callback;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = callbacks_.find(id);
        if (found == callbacks_.end()) {
            return nullptr;
        }
        callback = found->second;
    }
    // Unlocked: the callback may register tasks or callbacks of its own.
    return callback->invoke(featureName, content, current);
}

int Module::RegisterPolicyCallback(const std::string& id, AbstractPolicyCallback* callback) {
    std::shared_ptr<AbstractPolicyCallback> owned(callback);
    if (!owned) {
        HOST_LOG_ERROR("module " + name_ + ": null policy callback for id " + id);
        return 0;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    callbacks_[id] = std::move(owned);
    return 0;
}

int Module::UnRegisterPolicyCallback(const std::string& id) {
    std::lock_guard<std::mutex> lock(mutex_);
    return callbacks_.erase(id) != 0 ? 0 : -1;
}

bool Module::HasPolicyCallback(const std::string& id) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return callbacks_.count(id) != 0;
}

std::set<std::string> Module::GetPolicyIds() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::set<std::string> ids;
    for (const auto& entry : callbacks_) {
        ids.insert(entry.first);
    }
    return ids;
}

int Module::RegisterTask(Task* task, bool system) {
    Engine* engine = Engine::Instance();
    if (engine == nullptr) {
        HOST_LOG_ERROR("module " + name_ + ": no engine to run task " +
                       (task != nullptr ? task->GetTaskName() : std::string("(null)")));
        return -1;
    }
    return engine->RegisterTask(this, task, system);
}

int Module::UnRegisterTask(const std::string& taskName) {
    if (Engine* engine = Engine::Instance()) {
        return engine->UnRegisterTask(taskName);
    }
    return 0;
}

}  // namespace Framework
