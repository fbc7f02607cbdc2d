// The agent's test module. It takes policy id "90001", feature "agent_test_feature":
// {"enabled": true, "value": "...", "burst": N, "sent_log": "/path", "hang": false}. An enabled
// policy (re)registers the reporting task, a disabled one unregisters it.
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "framework/DataMessage.h"
#include "framework/FeaturePolicy.h"
#include "framework/Module.h"
#include "framework/PolicyCallback.h"
#include "framework/Task.h"
#include "framework/TaskPolicy.h"
#include "sdk/JsonUtils.h"

namespace AgentTest {

// The policy's JSON object, for the task to read when it starts.
class TestFeaturePolicy : public Framework::FeaturePolicy {
public:
    using Framework::FeaturePolicy::FeaturePolicy;
    Json::Value root;
};

// Once per run sends `burst` reports {"test_value": <policy value>, "seq": n} to the report
// task, n counting up over the life of the task; after each run and in UnInit it writes
// "<sent> <refused>" to the policy's sent_log.
class TestReportTask : public Framework::Task {
public:
    static constexpr const char* kTaskName = "agent_test_task";

    explicit TestReportTask(const std::string& feature)
        : Framework::Task(kTaskName, feature, Framework::TaskCondition::TASK_TYPE_PERIODIC, 0) {}

    int Init() override {
        if (const auto* policy = dynamic_cast<const TestFeaturePolicy*>(GetFeaturePolicy())) {
            policy_ = policy->root;
        }
        return Framework::Task::Init();
    }

    int Run() override {
        while (SDK::JsonUtils::GetBoolValue(policy_, "hang", false) && !IsStopRequested()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));  // not Task::sleep: no progress stamp
        }
        for (int index = 0; index < SDK::JsonUtils::GetIntValue(policy_, "burst", 1); ++index) {
            Json::Value body;
            body["test_value"] = SDK::JsonUtils::GetStringValue(policy_, "value", "");
            body["seq"] = static_cast<Json::Int64>(sent_ + refused_ + 1);
            const bool taken =
                SendDirectMsg("data_comm_report_task",
                              new Framework::DataMessage("2", SDK::JsonUtils::JsonToString(body))) == 0;
            ++(taken ? sent_ : refused_);
        }
        WriteSentLog();
        return 0;
    }

    void UnInit() override {
        WriteSentLog();
        Framework::Task::UnInit();
    }

private:
    ~TestReportTask() override = default;

    void WriteSentLog() const {
        const std::string log = SDK::JsonUtils::GetStringValue(policy_, "sent_log", "");
        if (!log.empty()) {
            // Written beside and renamed, so that a reader never sees half a line.
            std::ofstream(log + ".tmp", std::ios::trunc) << sent_ << " " << refused_ << "\n";
            std::rename((log + ".tmp").c_str(), log.c_str());
        }
    }

    Json::Value policy_;  // "hang": Run blocks, making no progress, until the task is stopped
    long sent_ = 0;
    long refused_ = 0;
};

class TestModule : public Framework::Module {
public:
    TestModule() : Framework::Module("agent_test_module") {}
    ~TestModule() override {
        if (task_ != nullptr) {
            task_->release();
        }
    }

    int Init() override {
        RegisterPolicyCallback("90001",
                               new Framework::PolicyCallback<TestModule>(this, &TestModule::OnPolicy));
        return Framework::Module::Init();
    }

    int UnInit() override {
        UnRegisterPolicyCallback("90001");
        return Framework::Module::UnInit();
    }

private:
    Framework::Policy* OnPolicy(const std::string& feature, const std::string& content, Framework::Policy*&) {
        auto policy = std::make_unique<TestFeaturePolicy>(feature);
        if (feature != "agent_test_feature" ||
            SDK::JsonUtils::ParseJsonStr(content.data(), content.size(), policy->root) != 0) {
            return nullptr;
        }
        UnRegisterTask(TestReportTask::kTaskName);
        if (!SDK::JsonUtils::GetBoolValue(policy->root, "enabled", false)) {
            return nullptr;
        }
        auto taskPolicy = std::make_unique<Framework::TaskPolicy>(TestReportTask::kTaskName);
        taskPolicy->ParseCondition("{\"repeat_interval\": 1}");
        policy->Add(taskPolicy.release());
        if (task_ == nullptr) {
            task_ = new TestReportTask(feature);
        }
        task_->SetTaskEnabled(true);
        RegisterTask(task_, false);
        return policy.release();
    }

    TestReportTask* task_ = nullptr;
};

}  // namespace AgentTest

extern "C" void* CreateModule() {
    return new AgentTest::TestModule();
}
