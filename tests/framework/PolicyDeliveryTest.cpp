#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "RecordingTask.h"
#include "framework/Engine.h"
#include "framework/FeaturePolicy.h"
#include "framework/Module.h"
#include "framework/PolicyCallback.h"
#include "framework/TaskPolicy.h"
#include "sdk/JsonUtils.h"

using namespace FrameworkTest;
using Framework::TaskCondition;

namespace {

// Builds a feature policy with one task policy and (re)registers its task from
// inside the callback, the way plug-in modules do.
class PolicyModule : public Framework::Module {
public:
    explicit PolicyModule(RecordingTask* task) : Framework::Module("policy_module"), task_(task, true) {}

    int Init() override {
        RegisterPolicyCallback("10001",
                               new Framework::PolicyCallback<PolicyModule>(this, &PolicyModule::Refresh));
        return Framework::Module::Init();
    }

    Framework::Policy* Refresh(const std::string& feature, const std::string& content,
                               Framework::Policy*& current) {
        currents.push_back(current);
        UnRegisterTask(task_->GetTaskName());
        Json::Value root;
        SDK::JsonUtils::ParseJsonStr(content.c_str(), content.size(), root);
        if (!SDK::JsonUtils::GetBoolValue(root, "enabled", false)) {
            return nullptr;
        }
        auto* policy = new Framework::FeaturePolicy(feature);
        auto* child = new Framework::TaskPolicy(task_->GetTaskName());
        Json::Value condition;
        SDK::JsonUtils::GetSubobjectValue(root, "task_condition", condition);
        child->ParseCondition(SDK::JsonUtils::JsonToString(condition));
        policy->Add(child);
        RegisterTask(task_.get(), false);
        return policy;
    }

    std::vector<Framework::Policy*> currents;

private:
    TaskRef task_;
};

void RecordPolicies(RecordingTask& task) {
    Framework::TaskPolicy* policy = task.GetTaskPolicy();
    Framework::FeaturePolicy* feature = task.GetFeaturePolicy();
    task.Record(policy == nullptr
                    ? "no policy"
                    : "every " + std::to_string(policy->GetCondition().GetTaskCondition().repeatInterval));
    task.Record("feature " + (feature == nullptr ? std::string("none") : feature->GetName()));
    task.Record("scheduled " + std::to_string(task.GetTaskCondition().GetTaskCondition().repeatInterval));
}

TEST(TaskConditionTest, ParseAcceptsScheduleFormsAndKeepsRecordOnFailure) {
    Framework::TaskPolicy policy("some_task");
    EXPECT_FALSE(policy.HasCondition());
    ASSERT_TRUE(policy.ParseCondition(R"({"start_time": 4102444800, "repeat_interval": 60})"));
    EXPECT_EQ(4102444800LL, policy.GetCondition().GetTaskCondition().startTime);
    EXPECT_EQ(60, policy.GetCondition().GetTaskCondition().repeatInterval);
    ASSERT_TRUE(policy.ParseCondition(R"({"repeat_interval": 5})"));

    for (const char* bad : {R"({"start_time": 0})", R"({"repeat_interval": 0})", R"({"repeat_interval": -5})",
                            R"({"repeat_interval": "60"})", R"({"start_time": "now", "repeat_interval": 60})",
                            R"({"start_time": -1, "repeat_interval": 60})", "[60]", "not json", ""}) {
        EXPECT_FALSE(policy.ParseCondition(bad)) << bad;
        EXPECT_EQ(0, policy.GetCondition().GetTaskCondition().startTime) << bad;
        EXPECT_EQ(5, policy.GetCondition().GetTaskCondition().repeatInterval) << bad;
    }
    EXPECT_TRUE(policy.HasCondition());
}

TEST(PolicyDeliveryTest, TaskSeesItsPolicyInInitAndBadTextsChangeNothing) {
    Framework::Engine engine;
    TaskRef task(new RecordingTask("policy_task", TaskCondition::TASK_TYPE_RESIDENT, 0, "policy_feature"));
    task->onInit = RecordPolicies;
    task->onRun = WaitForCancel;
    // Same feature, no task policy of its own: gets the feature policy only.
    TaskRef sibling(
        new RecordingTask("sibling_task", TaskCondition::TASK_TYPE_RESIDENT, 0, "policy_feature"));
    sibling->onRun = WaitForCancel;
    PolicyModule module(task.get());
    module.Init();
    engine.AddModule(&module);
    ASSERT_EQ(0, module.RegisterTask(sibling.get(), true));

    EXPECT_EQ(-2, engine.DeliverPolicy("99999", "policy_feature", "{}"));
    const std::string first = R"({"enabled": true, "task_condition": {"repeat_interval": 7}})";
    ASSERT_EQ(0, engine.DeliverPolicy("10001", "policy_feature", first));
    ASSERT_TRUE(task->WaitFor("Run"));
    EXPECT_EQ((std::vector<std::string>{"Init", "every 7", "feature policy_feature", "scheduled 7", "Run"}),
              task->Events());
    ASSERT_NE(nullptr, sibling->GetFeaturePolicy());
    EXPECT_EQ(std::make_pair(sibling->GetFeaturePolicy()->GetName(), sibling->GetTaskPolicy()),
              std::make_pair(std::string("policy_feature"), static_cast<Framework::TaskPolicy*>(nullptr)));

    EXPECT_EQ(-1, engine.DeliverPolicy("10001", "policy_feature", "{\"enabled\": tru"));
    EXPECT_EQ(std::make_tuple(engine.GetPolicyText("10001", "policy_feature"), module.currents.size(),
                              task->Count("Init")),
              std::make_tuple(first, 1ul, 1));

    ASSERT_EQ(0, engine.DeliverPolicy("10001", "policy_feature",
                                      R"({"enabled": true, "task_condition": {"repeat_interval": 9}})"));
    ASSERT_TRUE(task->WaitFor("Run", 2));
    EXPECT_EQ(1, task->Count("every 9"));
    ASSERT_EQ(2u, module.currents.size());
    EXPECT_TRUE(module.currents[0] == nullptr && module.currents[1] != nullptr);

    // A callback that returns nothing leaves the stored policy in place.
    ASSERT_EQ(0, engine.DeliverPolicy("10001", "policy_feature", R"({"enabled": false})"));
    EXPECT_EQ(std::make_pair(engine.FindTask("policy_task"), task->Count("UnInit")),
              std::make_pair(static_cast<Framework::Task*>(nullptr), 2));
    ASSERT_EQ(0, engine.DeliverPolicy("10001", "policy_feature",
                                      R"({"enabled": true, "task_condition": {"repeat_interval": 11}})"));
    ASSERT_EQ(4u, module.currents.size());
    EXPECT_NE(module.currents[1], module.currents[2]);
    EXPECT_EQ(module.currents[2], module.currents[3]);
    ASSERT_TRUE(task->WaitFor("Run", 3));
    EXPECT_EQ(1, task->Count("every 11"));

    // Removing the module deletes its policies; no task may keep pointing at them.
    engine.RemoveModule(&module);
    EXPECT_TRUE(sibling->GetFeaturePolicy() == nullptr && task->GetTaskPolicy() == nullptr);
    module.UnRegisterTask("sibling_task");
}

}  // namespace
