#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <utility>

#include "RecordingTask.h"
#include "framework/Engine.h"
#include "framework/Module.h"

using namespace FrameworkTest;
using Framework::TaskCondition;

namespace {

class TaskLifecycleTest : public ::testing::Test {
protected:
    Framework::Engine engine_;
    Framework::Module module_{"test_module"};
};

TEST_F(TaskLifecycleTest, PeriodicTaskKeepsRunningThroughFailures) {
    TaskRef task(new RecordingTask("periodic_task", TaskCondition::TASK_TYPE_PERIODIC));
    task->SetTaskCondition(TaskCondition({0, 1}));
    task->onInit = [](RecordingTask&) { throw Poco::IOException("init failed"); };
    task->onRun = [](RecordingTask& t) {
        if (t.Count("Run") % 2 == 0) {
            throw Poco::Exception("even run");
        }
        throw std::runtime_error("odd run");
    };
    ASSERT_EQ(0, module_.RegisterTask(task.get(), false));
    ASSERT_TRUE(task->WaitFor("Run", 3));
    ASSERT_EQ(0, module_.UnRegisterTask("periodic_task"));

    // One thread of its own, one UnInit at the end, and no reference left behind.
    EXPECT_EQ(std::make_tuple(task->Events().front(), task->Events().back(), task->Count("UnInit"),
                              task->Threads().size(), task->Threads().count(std::this_thread::get_id()),
                              engine_.FindTask("periodic_task"), task->referenceCount()),
              std::make_tuple("Init", "UnInit", 1, 1ul, 0ul, nullptr, 1));

    // A start time ahead holds the first run back, and unregistering cuts the wait short.
    TaskRef later(new RecordingTask("later_task", TaskCondition::TASK_TYPE_PERIODIC));
    later->SetTaskCondition(TaskCondition({static_cast<int64_t>(std::time(nullptr)) + 3600, 1}));
    ASSERT_EQ(0, module_.RegisterTask(later.get(), false));
    ASSERT_TRUE(later->WaitFor("Init"));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_EQ(0, module_.UnRegisterTask("later_task"));
    EXPECT_EQ(std::make_pair(later->Count("Run"), later->Count("UnInit")), std::make_pair(0, 1));
}

TEST_F(TaskLifecycleTest, UnregisterCancelsResidentTaskAndAllowsRestart) {
    TaskRef helper(new RecordingTask("helper_task", TaskCondition::TASK_TYPE_MESSAGE));
    ASSERT_EQ(0, module_.RegisterTask(helper.get(), false));

    TaskRef task(new RecordingTask("resident_task", TaskCondition::TASK_TYPE_RESIDENT));
    task->onRun = [](RecordingTask& t) {
        t.Record(t.sleep(60000) ? "sleep cut" : "sleep full");
        t.Record("state " + std::to_string(t.state()));
    };
    // A stopping task still reaches the engine; this must not deadlock the unregistration.
    task->onUnInit = [](RecordingTask& t) {
        t.Record(Framework::Engine::Instance()->FindTask("helper_task") != nullptr ? "helper found"
                                                                                   : "no helper");
        t.SendDirectMsg("helper_task", new Framework::Message("bye"));
    };
    ASSERT_EQ(0, module_.RegisterTask(task.get(), false));
    ASSERT_TRUE(task->WaitFor("Run"));
    ASSERT_EQ(0, module_.UnRegisterTask("resident_task"));
    EXPECT_EQ((std::vector<std::string>{"Init", "Run", "sleep cut", "state 3", "UnInit", "helper found"}),
              task->Events());
    EXPECT_TRUE(helper->WaitFor("Msg bye"));

    ASSERT_EQ(0, module_.RegisterTask(task.get(), false));
    ASSERT_TRUE(task->WaitFor("Run", 2));
    EXPECT_EQ(2, task->Count("Init"));
    ASSERT_EQ(0, module_.UnRegisterTask("resident_task"));
    EXPECT_EQ(std::make_pair(task->Count("sleep cut"), task->Count("UnInit")), std::make_pair(2, 2));
}

TEST_F(TaskLifecycleTest, RegistrationRefusesNullDisabledAndDuplicateTasks) {
    TaskRef first(new RecordingTask("dup_task", TaskCondition::TASK_TYPE_RESIDENT));
    first->onRun = WaitForCancel;
    TaskRef second(new RecordingTask("dup_task", TaskCondition::TASK_TYPE_RESIDENT));
    TaskRef disabled(new RecordingTask("off_task", TaskCondition::TASK_TYPE_RESIDENT));
    disabled->SetTaskEnabled(false);

    EXPECT_EQ(0, module_.RegisterTask(first.get(), false));
    for (RecordingTask* refused : {second.get(), disabled.get(), static_cast<RecordingTask*>(nullptr)}) {
        EXPECT_EQ(-1, module_.RegisterTask(refused, false));
    }
    EXPECT_EQ(
        std::make_pair(engine_.FindTask("dup_task"), engine_.FindTask("off_task")),
        std::make_pair(static_cast<Framework::Task*>(first.get()), static_cast<Framework::Task*>(nullptr)));
    EXPECT_EQ(0, module_.UnRegisterTask("never_registered"));
    EXPECT_EQ(std::make_pair(second->referenceCount(), disabled->referenceCount()), std::make_pair(1, 1));
}

TEST_F(TaskLifecycleTest, ExecuteDoesNotStartAfterAnEarlyCancel) {
    TaskRef task(new RecordingTask("early_task", TaskCondition::TASK_TYPE_RESIDENT));
    task->cancel();
    task->Execute();
    EXPECT_TRUE(task->Events().empty());
    EXPECT_EQ(Poco::Task::TASK_FINISHED, task->state());
}

TEST_F(TaskLifecycleTest, StopAllStopsPluginTasksBeforeHostTasks) {
    std::mutex mutex;
    std::vector<std::string> order;
    auto make = [&](const std::string& name) {
        TaskRef task(new RecordingTask(name, TaskCondition::TASK_TYPE_RESIDENT));
        task->onRun = WaitForCancel;
        task->onUnInit = [&](RecordingTask& t) {
            std::lock_guard<std::mutex> lock(mutex);
            order.push_back(t.GetTaskName());
        };
        return task;
    };
    TaskRef hostA = make("host_a"), plugin = make("plugin_task"), hostB = make("host_b");
    ASSERT_EQ(0, module_.RegisterTask(hostA.get(), true));
    ASSERT_EQ(0, module_.RegisterTask(plugin.get(), false));
    ASSERT_EQ(0, module_.RegisterTask(hostB.get(), true));
    for (auto* task : {hostA.get(), plugin.get(), hostB.get()}) {
        ASSERT_TRUE(task->WaitFor("Run"));
    }
    engine_.StopAll();
    ASSERT_EQ(3u, order.size());
    EXPECT_EQ("plugin_task", order.front());
    EXPECT_TRUE(engine_.GetTaskNames().empty());
    engine_.StopAll();
    EXPECT_EQ(3u, order.size());
}

}  // namespace
