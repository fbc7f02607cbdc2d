#include "collect/MixedTask.h"

namespace Engine {

MixedTask::MixedTask(const std::string& taskName, const std::string& featureName,
                     Framework::TaskCondition::TaskType type, unsigned int count)
    : Framework::Task(taskName, featureName, type, count) {}

MixedTask::~MixedTask() = default;

void MixedTask::AddSubscription(unsigned int flag) {
    std::lock_guard<std::mutex> lock(subscriptionMutex_);
    ++subscriptions_[flag];
}

void MixedTask::RemoveSubscription(unsigned int flag) {
    std::lock_guard<std::mutex> lock(subscriptionMutex_);
    auto it = subscriptions_.find(flag);
    if (it == subscriptions_.end()) {
        return;
    }
    if (--it->second <= 0) {
        subscriptions_.erase(it);
    }
}

int MixedTask::GetSubscriptionCount(unsigned int flag) const {
    std::lock_guard<std::mutex> lock(subscriptionMutex_);
    auto it = subscriptions_.find(flag);
    return it == subscriptions_.end() ? 0 : it->second;
}

std::map<unsigned int, int> MixedTask::GetSubscriptions() const {
    std::lock_guard<std::mutex> lock(subscriptionMutex_);
    return subscriptions_;
}

}  // namespace Engine
