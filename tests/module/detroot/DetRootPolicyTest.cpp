#include <gtest/gtest.h>

#include <set>
#include <string>

#include "feature_detroot/ProcDetRootFullTaskPolicy.h"
#include "feature_detroot/ProcDetRootPolicy.h"

namespace {

using Engine::ProcDetRootFullTaskPolicy;
using Engine::ProcDetRootPolicy;

const ProcDetRootFullTaskPolicy* TaskPolicyOf(const ProcDetRootPolicy& policy) {
    return dynamic_cast<const ProcDetRootFullTaskPolicy*>(policy.FindChild("detroot_full_task"));
}

TEST(DetRootPolicy, FeaturePolicyParsePaths) {
    ProcDetRootPolicy policy("proc_detroot_feature");
    EXPECT_FALSE(policy.Parse("{not json"));
    ASSERT_TRUE(policy.Parse(R"({"enabled": true, "content": {
        "ignore_process_d": ["/opt/a", "/opt/a", 7, ["/opt/c"], "/opt/b"],
        "detroot_full_task": {"task_condition": {"start_time": 0, "repeat_interval": 10},
                              "report_nonsuid_parent": true}}})"));
    // Duplicates collapse; every path also stands for its replaced-on-disk form; elements are
    // taken as strings, an array has none.
    const std::set<std::string> ignored = {"/opt/a", "/opt/a (deleted)", "/opt/b", "/opt/b (deleted)",
                                           "7",      "7 (deleted)"};
    EXPECT_EQ(policy.GetIgnoredProcesses(), ignored);
    ASSERT_NE(TaskPolicyOf(policy), nullptr);
    EXPECT_TRUE(TaskPolicyOf(policy)->GetNosuidParent());
    EXPECT_EQ(TaskPolicyOf(policy)->GetCondition().GetTaskCondition().repeatInterval, 10);

    // Disabled: success, nothing read, the earlier ignored set and task policy kept.
    ASSERT_TRUE(policy.Parse(R"({"enabled": false, "content": {"ignore_process_d": ["/x"]}})"));
    EXPECT_EQ(policy.GetIgnoredProcesses(), ignored);
    EXPECT_EQ(policy.GetChildCount(), 1u);

    ProcDetRootPolicy noContent("proc_detroot_feature");
    EXPECT_FALSE(noContent.Parse(R"({"enabled": true})"));
    EXPECT_EQ(noContent.GetChildCount(), 0u);

    // Without the task object the parse fails but the ignored set is already filled.
    ProcDetRootPolicy noTask("proc_detroot_feature");
    EXPECT_FALSE(noTask.Parse(R"({"enabled": true, "content": {"ignore_process_d": ["/y"]}})"));
    EXPECT_EQ(noTask.GetIgnoredProcesses(), (std::set<std::string>{"/y", "/y (deleted)"}));
    EXPECT_EQ(noTask.GetChildCount(), 0u);

    // No list at all is no error.
    ProcDetRootPolicy noList("proc_detroot_feature");
    EXPECT_TRUE(noList.Parse(R"({"enabled": true, "content": {"detroot_full_task":
        {"task_condition": {"repeat_interval": 5}}}})"));
    EXPECT_TRUE(noList.GetIgnoredProcesses().empty());
    ASSERT_NE(TaskPolicyOf(noList), nullptr);
    EXPECT_FALSE(TaskPolicyOf(noList)->GetNosuidParent());
}

TEST(DetRootPolicy, TaskPolicyParsePaths) {
    ProcDetRootFullTaskPolicy policy("detroot_full_task");
    ASSERT_TRUE(policy.Parse(R"({"task_condition": {"repeat_interval": 3}, "report_nonsuid_parent": true})"));
    EXPECT_TRUE(policy.GetNosuidParent());
    // No schedule: failure, and the switch keeps its value.
    EXPECT_FALSE(policy.Parse(R"({"report_nonsuid_parent": false})"));
    EXPECT_TRUE(policy.GetNosuidParent());
    // A schedule the host refuses fails the parse, but the switch is still read.
    EXPECT_FALSE(
        policy.Parse(R"({"task_condition": {"repeat_interval": 0}, "report_nonsuid_parent": false})"));
    EXPECT_FALSE(policy.GetNosuidParent());
    // Left out, the switch goes back to off.
    ASSERT_TRUE(policy.Parse(R"({"task_condition": {"repeat_interval": 3}, "report_nonsuid_parent": true})"));
    ASSERT_TRUE(policy.Parse(R"({"task_condition": {"repeat_interval": 3}})"));
    EXPECT_FALSE(policy.GetNosuidParent());
}

}  // namespace
