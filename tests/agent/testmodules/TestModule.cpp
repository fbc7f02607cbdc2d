#include "TestModule.h"

#include <memory>

#include "TestFeaturePolicy.h"
#include "TestReportTask.h"
#include "framework/TaskPolicy.h"
#include "sdk/JsonUtils.h"

namespace AgentTest {

TestModule::TestModule() : Framework::Module("agent_test_module") {}

TestModule::~TestModule() {
    if (task_ != nullptr) {
        task_->release();
    }
}

int TestModule::Init() {
    RegisterPolicyCallback(kPolicyId, new Framework::PolicyCallback<TestModule>(this, &TestModule::OnPolicy));
    return Framework::Module::Init();
}

int TestModule::UnInit() {
    UnRegisterPolicyCallback(kPolicyId);
    return Framework::Module::UnInit();
}

Framework::Policy* TestModule::OnPolicy(const std::string& feature, const std::string& content,
                                        Framework::Policy*& /*current*/) {
    Json::Value root;
    if (feature != kFeature || SDK::JsonUtils::ParseJsonStr(content.data(), content.size(), root) != 0) {
        return nullptr;
    }
    UnRegisterTask(TestReportTask::kTaskName);
    if (!SDK::JsonUtils::GetBoolValue(root, "enabled", false)) {
        return nullptr;
    }
    auto policy = std::make_unique<TestFeaturePolicy>(feature);
    policy->Parse(content);
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

}  // namespace AgentTest

extern "C" void* CreateModule() {
    return new AgentTest::TestModule();
}
