#pragma once

#include <Poco/Task.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "framework/Message.h"
#include "framework/TaskCondition.h"

namespace Framework {

class TaskPolicy;
class FeaturePolicy;
class Policy;
class Engine;

// A unit of work that the engine runs on a thread of its own.
//
// Life cycle, driven by the engine (see TaskCondition::TaskType for the types):
// the host attaches the task's policies, then on the task's thread calls Init,
// then Run (per type), then UnInit once the task is unregistered. Unregistering
// cancels the task: state() becomes TASK_CANCELLING (3), sleep() returns early,
// and long-running code is expected to poll isCancelled() or state().
//
// Tasks are reference counted (Poco::RefCountedObject): the engine holds one
// reference while the task is registered; whoever creates a task holds another
// and drops it with release().
class Task : public Poco::Task {
public:
    static constexpr size_t kDefaultQueueCapacity = 1024;

    // `count` is the capacity of the message queue; 0 means kDefaultQueueCapacity.
    Task(const std::string& taskName, const std::string& featureName, TaskCondition::TaskType type,
         unsigned int count);

    const std::string& GetTaskName() const { return name(); }
    const std::string& GetFeatureName() const { return featureName_; }
    TaskCondition::TaskType GetTaskType() const { return type_; }
    size_t GetQueueCapacity() const { return capacity_; }

    // Called on the task's thread. Init's result is logged, not enforced: a task
    // whose Init fails still runs (it may have defaults to run on).
    virtual int Init();
    virtual int Run();
    virtual void UnInit();

    // Enable marker: the engine starts only enabled tasks.
    bool IsTaskEnabled() const { return enabled_.load(); }
    void SetTaskEnabled(bool enabled) { enabled_.store(enabled); }

    // Policies attached by the host (not owned; valid until the next policy of the
    // same feature is dispatched, so copy what you need in Init).
    TaskPolicy* GetTaskPolicy();
    FeaturePolicy* GetFeaturePolicy();
    void AttachTaskPolicy(TaskPolicy* policy);
    void AttachFeaturePolicy(FeaturePolicy* policy);
    // How many times a task policy was taken with GetTaskPolicy; the version
    // attached last and the version taken last.
    unsigned long GetPolicyTakeCount() const { return policyTakes_.load(); }
    unsigned long GetPendingPolicyVersion() const { return pendingPolicyVersion_.load(); }
    unsigned long GetCurrentPolicyVersion() const { return currentPolicyVersion_.load(); }

    // The task's schedule; replaced by a dispatched task policy's condition.
    TaskCondition GetTaskCondition() const;
    void SetTaskCondition(const TaskCondition& condition);

    // --- Messages ---
    // Queues a message for this task (any thread). InterceptMsg sees it first and
    // may consume it. Returns false, dropping the message, when the queue is full.
    virtual bool EnqueueMsg(std::shared_ptr<Message>& message);
    // Returns true when the message was consumed here and must not be queued.
    virtual bool InterceptMsg(std::shared_ptr<Message>& message);
    // Default target of Message::MessageHandle. Returns 0.
    virtual int HandleMsg(const Message* message);
    // Handles up to `maxCount` queued messages on the calling thread, calling each
    // message's MessageHandle with this task. Returns the number handled.
    int BulkConsumeMsg(int maxCount);
    // Waits up to `milliseconds` for a message or a cancellation; true when a message is queued.
    bool WaitForMsg(long milliseconds);
    size_t GetQueuedCount() const;
    unsigned long GetDroppedCount() const { return dropped_.load(); }

    // Delivers `message` to the registered task named `taskName` and takes ownership
    // of it. When no such task is registered the message is dropped with a log line.
    // Returns 0 when queued, -1 otherwise.
    int SendDirectMsg(const std::string& taskName, Message* message);

    // --- Subscriptions (this task is the producer) ---
    // `consumer` starts to receive this task's messages of `flag`. Subscribing the
    // same consumer again only counts; it still receives each message once.
    // `name` is a free-form label for logs. Returns 0.
    long AddConsumer(unsigned long flag, const char* name, Task* consumer);
    // Undoes one AddConsumer; unknown pairs are ignored. Returns 0.
    long DelConsumer(unsigned long flag, const char* name, const Task* consumer);
    // Queues `message` once for each registered consumer of `flag`.
    // Returns the number of consumers that accepted it.
    int PublishMsg(unsigned long flag, const std::shared_ptr<Message>& message);
    bool HasConsumer(unsigned long flag) const;

    // Poco::Task: records the stop request before signalling it.
    void cancel() override;
    // True once a stop was requested (also before the thread has started).
    bool IsStopRequested() const { return stopRequested_.load(); }

    // Engine use: runs the whole life cycle on the calling thread, and prepares a
    // stopped task for another start.
    void Execute();
    void PrepareRestart();

    // Poco::Task's sleep: returns true when cancelled. Public so that helpers a
    // task owns can pace themselves. Sleeping between steps counts as progress.
    bool sleep(long milliseconds) {
        MarkProgress();
        return Poco::Task::sleep(milliseconds);
    }

    // --- Progress, for the agent's watchdog ---
    // A task loop that neither sleeps nor drains messages for long (a blocking
    // read with a timeout) calls this once per pass. The framework stamps the
    // other loops itself: around each periodic Run, in sleep, in message waits.
    void MarkProgress();
    // Steady-clock milliseconds of the last stamp; 0 before the thread ran.
    int64_t GetLastProgressMs() const { return lastProgressMs_.load(); }
    // Periodic tasks: how many Run calls have returned.
    unsigned long GetCompletedRuns() const { return completedRuns_.load(); }
    static int64_t ProgressClockMs();

protected:
    ~Task() override;

    // Drives Init/Run/UnInit by task type. Exceptions from Init and Run are logged
    // with the task name; a periodic task goes on with its next cycle.
    void runTask() override;

private:
    friend class Engine;
    // Engine use: forgets attached policies that are about to be deleted.
    void DetachPolicies(const std::set<const Policy*>& doomed);

    void RunPeriodic();
    void RunMessageLoop();

    const std::string featureName_;
    const TaskCondition::TaskType type_;
    const size_t capacity_;
    std::atomic<bool> enabled_{false};
    std::atomic<bool> stopRequested_{false};
    std::atomic<int64_t> lastProgressMs_{0};
    std::atomic<unsigned long> completedRuns_{0};

    mutable std::mutex policyMutex_;
    TaskPolicy* taskPolicy_ = nullptr;
    FeaturePolicy* featurePolicy_ = nullptr;
    TaskCondition condition_;
    std::atomic<unsigned long> policyTakes_{0};
    std::atomic<unsigned long> pendingPolicyVersion_{0};
    std::atomic<unsigned long> currentPolicyVersion_{0};

    mutable std::mutex queueMutex_;
    std::condition_variable queueCond_;
    std::deque<std::shared_ptr<Message>> queue_;
    std::atomic<unsigned long> dropped_{0};

    struct Subscription {
        Task* consumer;  // holds a reference (duplicate) while subscribed
        int count;
    };
    mutable std::mutex consumerMutex_;
    std::map<unsigned long, std::map<const Task*, Subscription>> consumers_;
};

}  // namespace Framework
