// Delivery with per-subscriber backlogs, against tasks registered with a real engine.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "SubscriberDispatcher.h"
#include "collect/MixedTask.h"
#include "framework/Engine.h"
#include "framework/Module.h"
#include "support/WaitFor.h"

namespace {

using Engine::ProcsMessage;

// Never drains its queue by itself: the test drains it, on the test's thread.
class SlowSubscriber : public Engine::MixedTask {
public:
    SlowSubscriber(const std::string& name, unsigned int capacity)
        : Engine::MixedTask(name, "collect_test_feature", Framework::TaskCondition::TASK_TYPE_RESIDENT,
                            capacity) {}
    void ProcsMessageAction(int pid, unsigned int, std::shared_ptr<ProcsMessage::procInfo>) override {
        pids.push_back(pid);
    }
    std::vector<int> pids;
};

std::shared_ptr<Framework::Message> Event(int pid) {
    return std::make_shared<ProcsMessage>(pid, Engine::PROCS_EVENT_FORK, nullptr);
}

TEST(SubscriberDispatcher, BacklogKeepsOrderAndBoundsMemory) {
    Framework::Engine engine;
    Framework::Module module("collect_test_module");
    auto* subscriber = new SlowSubscriber("slow_subscriber_task", 4);
    auto* stopped = new SlowSubscriber("stopped_subscriber_task", 4);  // never registered
    subscriber->SetTaskEnabled(true);
    ASSERT_EQ(0, module.RegisterTask(subscriber, false));
    ASSERT_TRUE(TestSupport::WaitFor([&] { return subscriber->state() == Poco::Task::TASK_RUNNING; }));
    {
        // Each event counts 100 bytes against a backlog of 600.
        Engine::SubscriberDispatcher dispatcher(600);
        dispatcher.Subscribe(subscriber, Engine::PROCS_EVENT_FORK);
        dispatcher.Subscribe(subscriber, Engine::PROCS_EVENT_FORK);  // counted, delivered once
        dispatcher.Subscribe(stopped, Engine::PROCS_EVENT_FORK);
        EXPECT_TRUE(dispatcher.Wants(Engine::PROCS_EVENT_FORK));
        EXPECT_FALSE(dispatcher.Wants(Engine::PROCS_EVENT_UID));

        // 4 fit the queue, 6 the backlog, 2 are dropped.
        for (int pid = 0; pid < 12; ++pid) {
            EXPECT_EQ(1, dispatcher.Publish(Engine::PROCS_EVENT_FORK, Event(pid), 100));
        }
        EXPECT_EQ(4u, subscriber->GetQueuedCount());
        EXPECT_EQ(0u, stopped->GetQueuedCount());
        EXPECT_EQ(6u, dispatcher.GetBacklogSize());
        EXPECT_EQ(600u, dispatcher.GetBacklogBytes());
        EXPECT_EQ(2ul, dispatcher.GetDroppedCount());
        EXPECT_EQ(6u, dispatcher.Offer());  // no room yet

        subscriber->BulkConsumeMsg(3);
        EXPECT_EQ(3u, dispatcher.Offer());
        // A new event waits behind the backlog rather than overtaking it.
        subscriber->BulkConsumeMsg(1);
        EXPECT_EQ(1, dispatcher.Publish(Engine::PROCS_EVENT_FORK, Event(100), 100));
        EXPECT_EQ(3u, subscriber->GetQueuedCount());
        EXPECT_EQ(4u, dispatcher.GetBacklogSize());
        subscriber->BulkConsumeMsg(4);
        EXPECT_EQ(0u, dispatcher.Offer());
        EXPECT_EQ(0u, dispatcher.GetBacklogBytes());
        subscriber->BulkConsumeMsg(4);
        EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 100}), subscriber->pids);

        // Two subscriptions need two unsubscriptions.
        dispatcher.Unsubscribe(subscriber, Engine::PROCS_EVENT_FORK);
        dispatcher.Unsubscribe(stopped, Engine::PROCS_EVENT_FORK);
        EXPECT_TRUE(dispatcher.Wants(Engine::PROCS_EVENT_FORK));
        dispatcher.Unsubscribe(subscriber, Engine::PROCS_EVENT_FORK);
        EXPECT_FALSE(dispatcher.Wants(Engine::PROCS_EVENT_FORK));
        EXPECT_EQ(0, dispatcher.Publish(Engine::PROCS_EVENT_FORK, Event(101), 100));
    }
    module.UnInit();
    stopped->release();
    subscriber->release();
}

}  // namespace
