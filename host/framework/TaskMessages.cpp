// Task: message queue, direct messages and subscriptions.
#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>

#include <chrono>
#include <exception>
#include <vector>

#include "framework/Engine.h"
#include "framework/Task.h"
#include "sdk/HostLog.h"

namespace Framework {

namespace {

// Log the first drop and then one line per this many, so that a stuck consumer cannot flood the log.
constexpr unsigned long kDropLogEvery = 1000;

// Published messages go only to consumers that are registered and running: a
// stopped consumer would only pile them up until its queue is full.
bool IsLiveConsumer(Task* consumer) {
    Engine* engine = Engine::Instance();
    return engine != nullptr && engine->FindTask(consumer->GetTaskName()) == consumer &&
           consumer->state() == Poco::Task::TASK_RUNNING;
}

}  // namespace

bool Task::EnqueueMsg(std::shared_ptr<Message>& message) {
    if (!message) {
        return false;
    }
    if (InterceptMsg(message)) {
        return true;
    }
    {
        std::lock_guard<std::mutex> lock(queueMutex_);
        if (queue_.size() < capacity_) {
            queue_.push_back(message);
            queueCond_.notify_one();
            return true;
        }
    }
    const unsigned long dropped = ++dropped_;
    if (dropped == 1 || dropped % kDropLogEvery == 0) {
        HOST_LOG_WARNING("task " + name() + ": message queue full (capacity " + std::to_string(capacity_) +
                         "), " + std::to_string(dropped) + " messages dropped so far");
    }
    return false;
}

bool Task::InterceptMsg(std::shared_ptr<Message>& /*message*/) {
    return false;
}

int Task::HandleMsg(const Message* /*message*/) {
    return 0;
}

int Task::BulkConsumeMsg(int maxCount) {
    MarkProgress();
    int handled = 0;
    while (handled < maxCount) {
        std::shared_ptr<Message> message;
        {
            std::lock_guard<std::mutex> lock(queueMutex_);
            if (queue_.empty()) {
                break;
            }
            message = std::move(queue_.front());
            queue_.pop_front();
        }
        ++handled;
        try {
            message->MessageHandle(this);
        } catch (const Poco::Exception& e) {
            HOST_LOG_ERROR("task " + name() + ": message " + message->GetName() +
                           " failed: " + e.displayText());
        } catch (const std::exception& e) {
            HOST_LOG_ERROR("task " + name() + ": message " + message->GetName() + " failed: " + e.what());
        }
    }
    return handled;
}

bool Task::WaitForMsg(long milliseconds) {
    MarkProgress();
    std::unique_lock<std::mutex> lock(queueMutex_);
    queueCond_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                        [this] { return !queue_.empty() || stopRequested_.load(); });
    lock.unlock();
    MarkProgress();
    std::lock_guard<std::mutex> relock(queueMutex_);
    return !queue_.empty();
}

size_t Task::GetQueuedCount() const {
    std::lock_guard<std::mutex> lock(queueMutex_);
    return queue_.size();
}

int Task::SendDirectMsg(const std::string& taskName, Message* message) {
    std::shared_ptr<Message> owned(message);
    if (!owned) {
        return -1;
    }
    Engine* engine = Engine::Instance();
    Task* target = engine != nullptr ? engine->FindTask(taskName) : nullptr;
    if (target == nullptr) {
        HOST_LOG_WARNING("task " + name() + ": no task " + taskName + " registered, message " +
                         owned->GetName() + " dropped");
        return -1;
    }
    return target->EnqueueMsg(owned) ? 0 : -1;
}

long Task::AddConsumer(unsigned long flag, const char* name, Task* consumer) {
    if (consumer == nullptr) {
        HOST_LOG_ERROR("task " + this->name() + ": null consumer for flag " + std::to_string(flag));
        return -1;
    }
    std::lock_guard<std::mutex> lock(consumerMutex_);
    auto& subscribers = consumers_[flag];
    auto found = subscribers.find(consumer);
    if (found != subscribers.end()) {
        ++found->second.count;
        return 0;
    }
    consumer->duplicate();
    subscribers.emplace(consumer, Subscription{consumer, 1});
    HOST_LOG_DEBUG("task " + this->name() + ": " + consumer->GetTaskName() + " subscribed to flag " +
                   std::to_string(flag) +
                   (name != nullptr && *name != '\0' ? std::string(" as ") + name : ""));
    return 0;
}

long Task::DelConsumer(unsigned long flag, const char* /*name*/, const Task* consumer) {
    Task* unsubscribed = nullptr;
    {
        std::lock_guard<std::mutex> lock(consumerMutex_);
        auto flagEntry = consumers_.find(flag);
        if (flagEntry == consumers_.end()) {
            return 0;
        }
        auto found = flagEntry->second.find(consumer);
        if (found == flagEntry->second.end()) {
            return 0;
        }
        if (--found->second.count > 0) {
            return 0;
        }
        unsubscribed = found->second.consumer;
        flagEntry->second.erase(found);
        if (flagEntry->second.empty()) {
            consumers_.erase(flagEntry);
        }
    }
    // Outside the lock: this may be the last reference, and a task may consume its own messages.
    unsubscribed->release();
    return 0;
}

int Task::PublishMsg(unsigned long flag, const std::shared_ptr<Message>& message) {
    if (!message) {
        return 0;
    }
    // Own references, so that a concurrent DelConsumer cannot free a target under us.
    std::vector<Poco::AutoPtr<Task>> targets;
    {
        std::lock_guard<std::mutex> lock(consumerMutex_);
        auto flagEntry = consumers_.find(flag);
        if (flagEntry == consumers_.end()) {
            return 0;
        }
        for (auto& subscriber : flagEntry->second) {
            targets.emplace_back(subscriber.second.consumer, true);
        }
    }
    int accepted = 0;
    for (auto& target : targets) {
        std::shared_ptr<Message> copy = message;
        if (IsLiveConsumer(target.get()) && target->EnqueueMsg(copy)) {
            ++accepted;
        }
    }
    return accepted;
}

bool Task::HasConsumer(unsigned long flag) const {
    std::lock_guard<std::mutex> lock(consumerMutex_);
    auto flagEntry = consumers_.find(flag);
    return flagEntry != consumers_.end() && !flagEntry->second.empty();
}

}  // namespace Framework
