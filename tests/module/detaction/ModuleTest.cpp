#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <tuple>

#include "DetactionTestUtil.h"
#include "ProcDetModule.h"
#include "feature_detaction/ProcDetActionFullTaskPolicy.h"
#include "feature_detaction/ProcDetActionPolicy.h"
#include "feature_detroot/ProcDetRootFullTask.h"
#include "support/TestEngine.h"

using namespace DetactionTest;
using Engine::ProcDetActionFullTaskPolicy;
using Engine::ProcDetActionPolicy;

namespace {

const std::string kEnabled = R"({"enabled": true, "content": {"detaction_full_task": {
    "task_condition": {"start_time": 0, "repeat_interval": 60}, "score": {}}}})";
const std::string kDisabled = R"({"enabled": false})";

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override {
        env.engine().AddModule(&module);
        ASSERT_EQ(module.Init(), 0);
    }
    void TearDown() override {
        module.UnInit();
        env.engine().RemoveModule(&module);
    }
    Framework::Task* Registered() { return env.engine().FindTask("detaction_full_task"); }

    TestSupport::TestEngine env;
    TestSupport::LogCapture log{"proc_det_module"};
    Engine::ProcDetModule module;
};

TEST_F(ModuleTest, RoutesOnlyItsFeaturesAndMarksTheCurrentPolicy) {
    EXPECT_TRUE(module.HasPolicyCallback("10001"));
    Framework::Policy held("held");
    Framework::Policy* current = &held;
    EXPECT_EQ(module.RefreshFeaturePolicy("other_feature", kEnabled, current), nullptr);
    EXPECT_TRUE(held.IsMarked());
    EXPECT_EQ(current, &held);

    Framework::Policy* none = nullptr;
    EXPECT_EQ(module.RefreshFeaturePolicy("proc_detaction_feature", "not json", none), nullptr);
    EXPECT_EQ(module.RefreshFeaturePolicy("proc_detaction_feature", kDisabled, none), nullptr);
    EXPECT_EQ(module.RefreshFeaturePolicy("proc_detroot_feature", kDisabled, none), nullptr);
    EXPECT_EQ(module.GetDetActionTask(), nullptr);
    EXPECT_EQ(Registered(), nullptr);
}

TEST_F(ModuleTest, TaskIsCreatedOnceAndRestartedOnEveryPolicy) {
    ASSERT_EQ(env.engine().DeliverPolicy("10001", "proc_detaction_feature", kEnabled), 0);
    Engine::ProcDetActionFullTask* task = module.GetDetActionTask();
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(Registered(), task);
    ASSERT_TRUE(WaitFor([&] { return log.Count("ProcDetActionFullTask run") >= 1; }));

    ASSERT_EQ(env.engine().DeliverPolicy("10001", "proc_detaction_feature", kEnabled), 0);
    EXPECT_EQ(module.GetDetActionTask(), task);
    EXPECT_EQ(Registered(), task);
    ASSERT_TRUE(WaitFor([&] { return log.Count("ProcDetActionFullTask run") >= 2; }));
    EXPECT_EQ(log.Count("ProcDetActionFullTask init"), 2u);
    EXPECT_EQ(log.Count("ProcDetActionFullTask UnInit"), 1u);
    EXPECT_GT(task->referenceCount(), 1);

    // Disabled: unregistered and kept; the module's one reference is all that is left.
    Framework::Policy* none = nullptr;
    EXPECT_EQ(module.RefreshFeaturePolicy("proc_detaction_feature", kDisabled, none), nullptr);
    EXPECT_EQ(Registered(), nullptr);
    EXPECT_EQ(module.GetDetActionTask(), task);
    EXPECT_EQ(task->referenceCount(), 1);
    EXPECT_EQ(log.Count("ProcDetActionFullTask UnInit"), 2u);

    // A new enabled policy reuses the task; its result is the feature policy tree.
    auto* policy = dynamic_cast<Engine::ProcDetActionPolicy*>(
        module.RefreshFeaturePolicy("proc_detaction_feature", kEnabled, none));
    ASSERT_NE(policy, nullptr);
    EXPECT_EQ(policy->GetChildCount(), 1u);
    EXPECT_EQ(Registered(), task);
    delete policy;
}

TEST_F(ModuleTest, StoppedDetrootTaskIsHeldByTheModuleAlone) {
    const std::string enabled = R"({"enabled": true, "content": {"detroot_full_task": {
        "task_condition": {"start_time": 0, "repeat_interval": 60}}}})";
    ASSERT_EQ(env.engine().DeliverPolicy("10001", "proc_detroot_feature", enabled), 0);
    ASSERT_TRUE(env.real().WaitForSubscriptions(Engine::PROCS_EVENT_UID, 1, 10000));
    // Stopping ends its subscriptions, so destroying the module destroys the task, and
    // no event reaches it afterwards (under ASan: neither leaked nor used after free).
    Framework::Policy* none = nullptr;
    module.RefreshFeaturePolicy("proc_detroot_feature", kDisabled, none);
    ASSERT_TRUE(WaitFor([&] { return !env.real().HasConsumer(Engine::PROCS_EVENT_FORK); }));
    ASSERT_TRUE(WaitFor([&] { return !env.real().HasConsumer(Engine::PROCS_EVENT_UID); }));
    EXPECT_EQ(module.GetDetRootTask()->referenceCount(), 1);
    EXPECT_EQ(env.real().Emit(1, Engine::PROCS_EVENT_FORK, TestSupport::MakeProc(1, "/bin/x")), 0);
}

const char* kFullSection = R"({
  "task_condition": {"start_time": 0, "repeat_interval": 7},
  "report_score": 5,
  "score": {"tmp": 2, "hidden": 4, "deleted": 6, "loginothers": 8, "bip": 10, "cpu": 12, "strings": 14, "packer": 16},
  "illegal_ip_list": ["10.0.0.1"],
  "biplib_url": "http://127.0.0.1/lib", "biplib_hash": "abc",
  "cpu_usage_warn": 5000, "full_report_hour": 4, "check_str_max_size_m": 2,
  "strings": ["xmrig", "xmrig", 7, true, {"a": 1}], "ignore_filepath": ["/usr/bin/a", [1]]
})";

TEST(PolicyTest, TaskSectionParsesEveryKeyAndStopsAtMissingSections) {
    ProcDetActionFullTaskPolicy policy("detaction_full_task");
    ASSERT_TRUE(policy.Parse(kFullSection));
    // The policy's scalars in one value: interval, report score, library URL and hash, CPU warning,
    // full report hour, string size limit.
    const auto scalars = [&] {
        return std::make_tuple(policy.GetCondition().GetTaskCondition().repeatInterval,
                               policy.GetReportScore(), policy.GetBiplibUrl(), policy.GetBiplibHash(),
                               policy.GetCpuUsageWarn(), policy.GetFullReportHour(),
                               policy.GetCheckStrMaxSizeM());
    };
    EXPECT_EQ(scalars(), std::make_tuple(7, 5, "http://127.0.0.1/lib", "abc", 5000, 4, 2));
    EXPECT_EQ(policy.GetScoreMap(),
              (ProcDetActionFullTaskPolicy::ScoreMap{
                  {1, 2}, {2, 4}, {4, 6}, {8, 8}, {16, 10}, {32, 12}, {64, 14}, {256, 16}}));
    EXPECT_EQ(policy.GetIllegalIps(), (std::set<long>{static_cast<long>(inet_addr("10.0.0.1"))}));
    EXPECT_EQ(policy.GetStrings(), (std::set<std::string>{"7", "true", "xmrig"}));
    EXPECT_EQ(policy.GetIgnoreFilepaths(), (std::set<std::string>{"/usr/bin/a"}));

    // No task condition (or no JSON): nothing changes.
    EXPECT_FALSE(policy.Parse(R"({"report_score": 9, "score": {}})"));
    EXPECT_FALSE(policy.Parse("not json"));
    EXPECT_EQ(scalars(), std::make_tuple(7, 5, "http://127.0.0.1/lib", "abc", 5000, 4, 2));
    EXPECT_EQ(policy.GetScoreMap().size(), 8u);

    // No score: everything else is stored (missing keys back to their defaults), weights emptied.
    EXPECT_FALSE(policy.Parse(R"({"task_condition": {"repeat_interval": 9}, "strings": ["a"],
                                  "illegal_ip_list": ["1.2.3.4", "1.2.3.4", "no address", "255.255.255.255", 5]})"));
    EXPECT_EQ(scalars(), std::make_tuple(9, 3, "", "", 9000, 3, 10));
    EXPECT_TRUE(policy.GetScoreMap().empty());
    EXPECT_EQ(policy.GetStrings(), (std::set<std::string>{"a"}));
    EXPECT_TRUE(policy.GetIgnoreFilepaths().empty());
    EXPECT_EQ(policy.GetIllegalIps(), (std::set<long>{inet_addr("1.2.3.4"), inet_addr("5")}));
}

TEST(PolicyTest, FeaturePolicyBuildsTheTaskChild) {
    ProcDetActionPolicy disabled("proc_detaction_feature");
    EXPECT_TRUE(disabled.Parse(R"({"enabled": false, "content": {"detaction_full_task": {}}})"));
    EXPECT_EQ(disabled.GetChildCount(), 0u);

    ProcDetActionPolicy broken("proc_detaction_feature");
    EXPECT_FALSE(broken.Parse("{"));
    EXPECT_FALSE(broken.Parse(R"({"enabled": true})"));
    EXPECT_FALSE(broken.Parse(R"({"enabled": true, "content": {"other": {}}})"));
    EXPECT_EQ(broken.GetChildCount(), 0u);

    // A task section that fails to parse still becomes the child.
    ProcDetActionPolicy partial("proc_detaction_feature");
    EXPECT_TRUE(
        partial.Parse(R"({"enabled": true, "content": {"detaction_full_task": {"report_score": 1}}})"));
    EXPECT_EQ(partial.GetChildCount(), 1u);
}

}  // namespace
