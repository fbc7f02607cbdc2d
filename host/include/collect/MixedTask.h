#pragma once

#include <map>
#include <mutex>
#include <string>

#include "collect/AbstractMessageReceiver.h"
#include "framework/Task.h"

namespace Engine {

// A task that both receives process events and accepts subscriptions: the shape
// of every event producer. The subscription table counts, per event flag, how
// many subscriptions are live; a producer reads events of a flag only while it is wanted.
class MixedTask : public Framework::Task, public AbstractMessageReceiver {
public:
    MixedTask(const std::string& taskName, const std::string& featureName,
              Framework::TaskCondition::TaskType type, unsigned int count);

    int Run() override { return 0; }

    // Subscription table (thread-safe).
    void AddSubscription(unsigned int flag);
    void RemoveSubscription(unsigned int flag);
    int GetSubscriptionCount(unsigned int flag) const;
    std::map<unsigned int, int> GetSubscriptions() const;

protected:
    ~MixedTask() override;

private:
    mutable std::mutex subscriptionMutex_;
    std::map<unsigned int, int> subscriptions_;
};

}  // namespace Engine
