// Process messages: subscription counting. Delivery of events to a subscriber is
// met end to end (ProcsCollectE2ETest) and by the detection module's tests.
#include <gtest/gtest.h>

#include <memory>

#include "collect/MixedTask.h"
#include "collect/ProcsMessage.h"

namespace {

using Engine::ProcsMessage;

class ReceivingTask : public Engine::MixedTask {
public:
    explicit ReceivingTask(const std::string& name)
        : Engine::MixedTask(name, "collect_test_feature", Framework::TaskCondition::TASK_TYPE_MESSAGE, 16) {}
    void ProcsMessageAction(int, unsigned int, std::shared_ptr<ProcsMessage::procInfo>) override {}
};

class PlainTask : public Framework::Task {
public:
    using Framework::Task::Task;
};

TEST(ProcsMessages, SubscriptionsAreCountedPerFlag) {
    auto* producer = new ReceivingTask("producer_task");
    auto* consumer = new ReceivingTask("consumer_task");
    Engine::ProcsRegistMessage regist(Engine::PROCS_EVENT_FORK, consumer);
    Engine::ProcsUnRegistMessage unregist(Engine::PROCS_EVENT_FORK, consumer);

    // An event handed to a task that takes no process events is dropped.
    auto* plain =
        new PlainTask("plain_task", "collect_test_feature", Framework::TaskCondition::TASK_TYPE_MESSAGE, 16);
    Engine::ProcsMessage event(1, Engine::PROCS_EVENT_FORK, nullptr);
    EXPECT_EQ(0, event.MessageHandle(static_cast<Framework::Task*>(plain)));
    plain->release();

    EXPECT_EQ(0, regist.MessageHandle(static_cast<Framework::Task*>(producer)));
    EXPECT_EQ(0, regist.MessageHandle(static_cast<Framework::Task*>(producer)));
    EXPECT_EQ(2, producer->GetSubscriptionCount(Engine::PROCS_EVENT_FORK));
    EXPECT_TRUE(producer->HasConsumer(Engine::PROCS_EVENT_FORK));

    EXPECT_EQ(0, unregist.MessageHandle(static_cast<Framework::Task*>(producer)));
    EXPECT_EQ(1, producer->GetSubscriptionCount(Engine::PROCS_EVENT_FORK));
    EXPECT_TRUE(producer->HasConsumer(Engine::PROCS_EVENT_FORK));

    EXPECT_EQ(0, unregist.MessageHandle(static_cast<Framework::Task*>(producer)));
    EXPECT_EQ(0u, producer->GetSubscriptions().count(Engine::PROCS_EVENT_FORK));
    EXPECT_FALSE(producer->HasConsumer(Engine::PROCS_EVENT_FORK));

    // One unregistration too many leaves the table alone.
    EXPECT_EQ(0, unregist.MessageHandle(static_cast<Framework::Task*>(producer)));
    EXPECT_TRUE(producer->GetSubscriptions().empty());

    // A registration without a requester answers with AddConsumer's refusal and still counts.
    Engine::ProcsRegistMessage orphan(Engine::PROCS_EVENT_EXEC, nullptr);
    EXPECT_EQ(-1, orphan.MessageHandle(static_cast<Framework::Task*>(producer)));
    EXPECT_EQ(1, producer->GetSubscriptionCount(Engine::PROCS_EVENT_EXEC));

    consumer->release();
    producer->release();
}

}  // namespace
