#include <gtest/gtest.h>

#include "DetactionTestUtil.h"
#include "ProcDetModule.h"
#include "feature_detaction/ProcDetActionPolicy.h"
#include "feature_detroot/ProcDetRootFullTask.h"
#include "support/TestEngine.h"

using namespace DetactionTest;

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

}  // namespace
