// Process messages: subscription counting and delivery to a receiving task.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "collect/MixedTask.h"
#include "collect/ProcsMessage.h"

namespace {

using Engine::ProcsMessage;

class ReceivingTask : public Engine::MixedTask {
public:
    explicit ReceivingTask(const std::string& name)
        : Engine::MixedTask(name, "collect_test_feature", Framework::TaskCondition::TASK_TYPE_MESSAGE, 16) {}
    void ProcsMessageAction(int pid, unsigned int flag,
                            std::shared_ptr<ProcsMessage::procInfo> record) override {
        received.push_back({pid, flag, std::move(record)});
    }
    struct Received {
        int pid;
        unsigned int flag;
        std::shared_ptr<ProcsMessage::procInfo> record;
    };
    std::vector<Received> received;
};

class PlainTask : public Framework::Task {
public:
    PlainTask()
        : Framework::Task("plain_task", "collect_test_feature", Framework::TaskCondition::TASK_TYPE_MESSAGE,
                          16) {}
};

TEST(ProcsMessages, SubscriptionsAreCountedPerFlag) {
    auto* producer = new ReceivingTask("producer_task");
    auto* consumer = new ReceivingTask("consumer_task");
    Engine::ProcsRegistMessage regist(Engine::PROCS_EVENT_FORK, consumer);
    Engine::ProcsUnRegistMessage unregist(Engine::PROCS_EVENT_FORK, consumer);

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

TEST(ProcsMessages, EventReachesTheReceiverOnly) {
    auto record = std::make_shared<ProcsMessage::procInfo>();
    record->pid = 77;
    ProcsMessage message(77, Engine::PROCS_EVENT_UID, record);
    auto* receiver = new ReceivingTask("receiver_task");
    auto* plain = new PlainTask();
    EXPECT_EQ(0, message.MessageHandle(static_cast<Framework::Task*>(receiver)));
    EXPECT_EQ(0, message.MessageHandle(static_cast<Framework::Task*>(plain)));
    ASSERT_EQ(1u, receiver->received.size());
    EXPECT_EQ(77, receiver->received[0].pid);
    EXPECT_EQ(Engine::PROCS_EVENT_UID, receiver->received[0].flag);
    EXPECT_EQ(record.get(), receiver->received[0].record.get());
    plain->release();
    receiver->release();
}

}  // namespace
