// The smallest useful plug-in module: it takes the policy id "90100" and, while
// its feature "example_feature" is enabled, runs a periodic task that logs how
// often it ran. Built only against the agent's installed headers.
#include <Poco/Logger.h>

#include <string>

#include "framework/FeaturePolicy.h"
#include "framework/Module.h"
#include "framework/PolicyCallback.h"
#include "framework/Task.h"
#include "framework/TaskPolicy.h"
#include "sdk/JsonUtils.h"
#include "sdk/LoggerUtils.h"

namespace Example {

class CountingTask : public Framework::Task {
public:
    static constexpr const char* kTaskName = "example_task";

    CountingTask()
        : Framework::Task(kTaskName, "example_feature", Framework::TaskCondition::TASK_TYPE_PERIODIC, 0) {}

    int Run() override {
        Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("example_module", false);
        if (logger != nullptr) {
            logger->information("example task ran " + std::to_string(++runs_) + " times");
        }
        return 0;
    }

private:
    int runs_ = 0;
};

class ExampleModule : public Framework::Module {
public:
    ExampleModule() : Framework::Module("example_module") {}
    ~ExampleModule() override {
        if (task_ != nullptr) {
            task_->release();
        }
    }

    int Init() override {
        RegisterPolicyCallback("90100",
                               new Framework::PolicyCallback<ExampleModule>(this, &ExampleModule::OnPolicy));
        return Framework::Module::Init();
    }
    int UnInit() override {
        UnRegisterPolicyCallback("90100");
        return Framework::Module::UnInit();
    }

private:
    Framework::Policy* OnPolicy(const std::string& feature, const std::string& content, Framework::Policy*&) {
        Json::Value root;
        if (feature != "example_feature" ||
            SDK::JsonUtils::ParseJsonStr(content.data(), content.size(), root) != 0) {
            return nullptr;
        }
        UnRegisterTask(CountingTask::kTaskName);
        if (!SDK::JsonUtils::GetBoolValue(root, "enabled", false)) {
            return nullptr;
        }
        auto* policy = new Framework::FeaturePolicy(feature);
        auto* taskPolicy = new Framework::TaskPolicy(CountingTask::kTaskName);
        taskPolicy->ParseCondition("{\"repeat_interval\": 1}");
        policy->Add(taskPolicy);
        if (task_ == nullptr) {
            task_ = new CountingTask();
        }
        task_->SetTaskEnabled(true);
        RegisterTask(task_, false);
        return policy;
    }

    CountingTask* task_ = nullptr;
};

}  // namespace Example

extern "C" void* CreateModule() {
    return static_cast<Framework::Module*>(new Example::ExampleModule());
}
