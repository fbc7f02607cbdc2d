#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "RecordingTask.h"
#include "framework/Engine.h"
#include "framework/Module.h"

using namespace FrameworkTest;
using Framework::Message;
using Framework::TaskCondition;

namespace {

class CountedMessage : public Message {
public:
    CountedMessage() : Message("counted") { ++alive; }
    ~CountedMessage() override { --alive; }
    static std::atomic<int> alive;
};
std::atomic<int> CountedMessage::alive{0};

class InterceptingTask : public RecordingTask {
public:
    using RecordingTask::RecordingTask;
    bool InterceptMsg(std::shared_ptr<Message>& message) override {
        if (message->GetName() != "urgent") {
            return false;
        }
        Record("Intercepted");
        return true;
    }
};

class MessagesTest : public ::testing::Test {
protected:
    TaskRef Start(const std::string& name) {
        TaskRef task(new RecordingTask(name, TaskCondition::TASK_TYPE_MESSAGE));
        EXPECT_EQ(0, module_.RegisterTask(task.get(), false));
        EXPECT_TRUE(task->WaitFor("Init"));
        return task;
    }

    Framework::Engine engine_;
    Framework::Module module_{"messages_module"};
};

TEST(TaskQueueTest, QueueIsBoundedAndInterceptedMessagesBypassIt) {
    Poco::AutoPtr<InterceptingTask> task(
        new InterceptingTask("queue_task", TaskCondition::TASK_TYPE_MESSAGE, 2));
    auto first = std::make_shared<Message>("first");
    auto second = std::make_shared<Message>("second");
    auto third = std::make_shared<Message>("third");
    auto urgent = std::make_shared<Message>("urgent");
    EXPECT_TRUE(task->EnqueueMsg(first));
    EXPECT_TRUE(task->EnqueueMsg(second));
    EXPECT_FALSE(task->EnqueueMsg(third));
    EXPECT_EQ(1u, task->GetDroppedCount());
    EXPECT_TRUE(task->EnqueueMsg(urgent));
    EXPECT_EQ(1, task->Count("Intercepted"));

    EXPECT_TRUE(task->WaitForMsg(0));
    EXPECT_EQ(1, task->BulkConsumeMsg(1));
    EXPECT_EQ(1, task->BulkConsumeMsg(10));
    EXPECT_EQ(0, task->BulkConsumeMsg(10));
    EXPECT_EQ((std::vector<std::string>{"Intercepted", "Msg first", "Msg second"}), task->Events());

    // A cancelled task does not wait for messages that will never be handled.
    task->cancel();
    EXPECT_FALSE(task->WaitForMsg(60000));
}

TEST_F(MessagesTest, DirectMessagesReachRegisteredTasksAndPublishedOnesEachLiveSubscriberOnce) {
    TaskRef producer(new RecordingTask("producer_task", TaskCondition::TASK_TYPE_RESIDENT));
    TaskRef one = Start("consumer_one");
    TaskRef two = Start("consumer_two");
    const int oneRefs = one->referenceCount();

    EXPECT_EQ(0, producer->SendDirectMsg("consumer_one", new Message("hello")));
    ASSERT_TRUE(one->WaitFor("Msg hello"));
    ASSERT_EQ(1u, one->Threads().size());
    EXPECT_NE(std::this_thread::get_id(), *one->Threads().begin());
    EXPECT_EQ(-1, producer->SendDirectMsg("missing_task", new CountedMessage));
    EXPECT_EQ(0, CountedMessage::alive.load());
    EXPECT_EQ(-1, producer->SendDirectMsg("consumer_one", nullptr));

    EXPECT_EQ(0, producer->AddConsumer(7, "", one.get()));
    EXPECT_EQ(0, producer->AddConsumer(7, "", one.get()));
    EXPECT_EQ(0, producer->AddConsumer(7, "", two.get()));
    EXPECT_EQ(oneRefs + 1, one->referenceCount());
    EXPECT_TRUE(producer->HasConsumer(7));
    EXPECT_FALSE(producer->HasConsumer(8));

    auto event = std::make_shared<Message>("event");
    EXPECT_EQ(2, producer->PublishMsg(7, event));
    EXPECT_EQ(0, producer->PublishMsg(8, event));
    EXPECT_EQ(0, producer->DelConsumer(7, "", one.get()));
    EXPECT_EQ(2, producer->PublishMsg(7, event));
    EXPECT_EQ(0, producer->DelConsumer(7, "", one.get()));
    EXPECT_EQ(0, producer->DelConsumer(9, "", one.get()));
    EXPECT_EQ(oneRefs, one->referenceCount());
    EXPECT_EQ(1, producer->PublishMsg(7, event));

    // FIFO: once the marker is handled, everything published before it was too.
    producer->SendDirectMsg("consumer_one", new Message("marker"));
    ASSERT_TRUE(one->WaitFor("Msg marker"));
    EXPECT_EQ(2, one->Count("Msg event"));
    ASSERT_TRUE(two->WaitFor("Msg event", 3));

    // An unregistered subscriber is skipped rather than left to fill its queue.
    ASSERT_EQ(0, module_.UnRegisterTask("consumer_two"));
    EXPECT_EQ(0, producer->PublishMsg(7, event));
    EXPECT_EQ(0u, two->GetQueuedCount());
}

}  // namespace
