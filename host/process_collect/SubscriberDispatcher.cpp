#include "SubscriberDispatcher.h"

#include "ProcessCollectModule.h"
#include "framework/Engine.h"
#include "framework/Task.h"
#include "sdk/HostLog.h"

namespace Engine {

SubscriberDispatcher::SubscriberDispatcher(size_t backlogLimitBytes) : backlogLimit_(backlogLimitBytes) {}

SubscriberDispatcher::~SubscriberDispatcher() {
    while (!subscribers_.empty()) {
        Forget(subscribers_.begin());
    }
}

void SubscriberDispatcher::Subscribe(Framework::Task* subscriber, unsigned int flag) {
    if (subscriber == nullptr) {
        return;
    }
    auto entry = subscribers_.find(subscriber);
    if (entry == subscribers_.end()) {
        subscriber->duplicate();  // its backlog may outlive the framework's reference
        entry = subscribers_.emplace(subscriber, Subscriber{subscriber, {}, {}, 0}).first;
    }
    if (entry->second.flags[flag]++ == 0) {
        ++flagSubscribers_[flag];
    }
}

void SubscriberDispatcher::Unsubscribe(const Framework::Task* subscriber, unsigned int flag) {
    auto entry = subscribers_.find(subscriber);
    if (entry == subscribers_.end()) {
        return;
    }
    auto& flags = entry->second.flags;
    auto counted = flags.find(flag);
    if (counted == flags.end()) {
        return;
    }
    if (--counted->second <= 0) {
        flags.erase(counted);
        if (--flagSubscribers_[flag] <= 0) {
            flagSubscribers_.erase(flag);
        }
    }
    if (flags.empty()) {
        Forget(entry);
    }
}

void SubscriberDispatcher::Forget(std::map<const Framework::Task*, Subscriber>::iterator entry) {
    Subscriber& subscriber = entry->second;
    for (const auto& counted : subscriber.flags) {
        if (--flagSubscribers_[counted.first] <= 0) {
            flagSubscribers_.erase(counted.first);
        }
    }
    backlogSize_ -= subscriber.backlog.size();
    backlogBytes_ -= subscriber.backlogBytes;
    Framework::Task* task = subscriber.task;
    subscribers_.erase(entry);
    task->release();
}

bool SubscriberDispatcher::Wants(unsigned int flag) const {
    return flagSubscribers_.count(flag) != 0;
}

bool SubscriberDispatcher::IsLive(Framework::Task& task) {
    Framework::Engine* engine = Framework::Engine::Instance();
    return engine != nullptr && engine->FindTask(task.GetTaskName()) == &task &&
           task.state() == Poco::Task::TASK_RUNNING;
}

bool SubscriberDispatcher::HasRoom(const Framework::Task& task) {
    return task.GetQueuedCount() < task.GetQueueCapacity();
}

bool SubscriberDispatcher::Drain(Subscriber& subscriber) {
    while (!subscriber.backlog.empty() && HasRoom(*subscriber.task)) {
        std::shared_ptr<Framework::Message> message = subscriber.backlog.front().first;
        if (!subscriber.task->EnqueueMsg(message)) {
            return false;  // filled up in between; try again later
        }
        subscriber.backlogBytes -= subscriber.backlog.front().second;
        backlogBytes_ -= subscriber.backlog.front().second;
        subscriber.backlog.pop_front();
    }
    return subscriber.backlog.empty();
}

int SubscriberDispatcher::Publish(unsigned int flag, const std::shared_ptr<Framework::Message>& message,
                                  size_t bytes) {
    int reached = 0;
    for (auto& [key, subscriber] : subscribers_) {
        // A stopped subscriber would only hoard events it will never handle.
        if (subscriber.flags.count(flag) == 0 || !IsLive(*subscriber.task)) {
            continue;
        }
        ++reached;
        // Straight into the queue only when nothing older waits, to keep the order.
        if (subscriber.backlog.empty() && HasRoom(*subscriber.task)) {
            std::shared_ptr<Framework::Message> copy = message;
            if (subscriber.task->EnqueueMsg(copy)) {
                continue;
            }
        }
        const size_t limit = backlogLimit_.load();
        if (subscriber.backlogBytes + bytes > limit) {
            ++dropped_;
            if (subscriber.droppedInRun++ == 0) {
                HOST_MODULE_LOG_ERROR(kProcessCollectModuleName,
                                      "process events for task " + subscriber.task->GetTaskName() +
                                          " are being dropped: its queue and a backlog of " +
                                          std::to_string(limit >> 20) + " MiB (" +
                                          std::to_string(subscriber.backlog.size()) + " events) are full");
            }
            continue;
        }
        subscriber.backlog.emplace_back(message, bytes);
        subscriber.backlogBytes += bytes;
        backlogBytes_ += bytes;
        ++backlogSize_;
    }
    return reached;
}

size_t SubscriberDispatcher::Offer() {
    if (backlogSize_ == 0) {
        return 0;
    }
    size_t remaining = 0;
    for (auto& [key, subscriber] : subscribers_) {
        if (subscriber.backlog.empty()) {
            continue;
        }
        const size_t before = subscriber.backlog.size();
        const bool emptied = Drain(subscriber);
        backlogSize_ -= before - subscriber.backlog.size();
        remaining += subscriber.backlog.size();
        if (emptied && subscriber.droppedInRun > 0) {
            HOST_MODULE_LOG_ERROR(kProcessCollectModuleName, "task " + subscriber.task->GetTaskName() +
                                                                 " caught up; " +
                                                                 std::to_string(subscriber.droppedInRun) +
                                                                 " process events were dropped");
            subscriber.droppedInRun = 0;
        }
    }
    return remaining;
}

size_t SubscriberDispatcher::GetBacklogSize() const {
    return backlogSize_;
}

}  // namespace Engine
