#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <utility>

#include "framework/Message.h"

namespace Framework {
class Task;
}

namespace Engine {

// Delivers the producer's messages to each subscriber's queue. A subscriber
// whose queue is full gets a backlog here, offered again as its queue empties,
// so the producer never waits on a slow subscriber and nothing is lost until
// the backlog reaches its limit in bytes (then the newest messages are dropped,
// counted and logged). Used from the producer's thread only, but for
// SetBacklogLimit.
class SubscriberDispatcher {
public:
    static constexpr size_t kDefaultBacklogBytes = size_t{64} << 20;

    explicit SubscriberDispatcher(size_t backlogLimitBytes = kDefaultBacklogBytes);
    ~SubscriberDispatcher();  // releases the subscribers

    SubscriberDispatcher(const SubscriberDispatcher&) = delete;
    SubscriberDispatcher& operator=(const SubscriberDispatcher&) = delete;

    // Counts one subscription of `subscriber` to `flag` (and holds a reference to it).
    void Subscribe(Framework::Task* subscriber, unsigned int flag);
    // Undoes one Subscribe; a subscriber with no flag left is forgotten with its backlog.
    void Unsubscribe(const Framework::Task* subscriber, unsigned int flag);

    bool Wants(unsigned int flag) const;
    // Queues `message` once for every live subscriber of `flag` (registered and
    // running); returns how many subscribers it went to. `bytes`: the memory the
    // message holds, counted against each backlog it waits in.
    int Publish(unsigned int flag, const std::shared_ptr<Framework::Message>& message, size_t bytes);
    // Moves backlog into queues that have room again. Returns the messages still held back.
    size_t Offer();

    size_t GetBacklogSize() const;
    size_t GetBacklogBytes() const { return backlogBytes_; }
    // The bytes each subscriber's backlog may hold; from any thread.
    void SetBacklogLimit(size_t bytes) { backlogLimit_.store(bytes); }
    unsigned long GetDroppedCount() const { return dropped_; }

private:
    struct Subscriber {
        Framework::Task* task;
        std::map<unsigned int, int> flags;  // flag -> subscription count
        std::deque<std::pair<std::shared_ptr<Framework::Message>, size_t>> backlog;  // message, bytes
        size_t backlogBytes = 0;
        unsigned long droppedInRun = 0;  // drops since the backlog last emptied
    };

    // Registered with the engine and running, as the framework's own publishing requires.
    static bool IsLive(Framework::Task& task);
    static bool HasRoom(const Framework::Task& task);
    // Hands the backlog to the queue while it has room; true when the backlog emptied.
    bool Drain(Subscriber& subscriber);
    void Forget(std::map<const Framework::Task*, Subscriber>::iterator entry);

    std::atomic<size_t> backlogLimit_;
    std::map<const Framework::Task*, Subscriber> subscribers_;
    std::map<unsigned int, int> flagSubscribers_;  // flag -> subscribers wanting it
    size_t backlogSize_ = 0;
    size_t backlogBytes_ = 0;
    unsigned long dropped_ = 0;
};

}  // namespace Engine
