#include "framework/Task.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <exception>
#include <limits>

#include "framework/Engine.h"
#include "framework/FeaturePolicy.h"
#include "framework/Metrics.h"
#include "framework/TaskPolicy.h"
#include "sdk/HostLog.h"

namespace Framework {

namespace {

using SteadyClock = std::chrono::steady_clock;

// Long waits are cut into slices so that a clock that jumps cannot stretch them.
constexpr long kSleepSliceMs = 1000;
constexpr int kMessageBatch = 1024;
constexpr long kMessageWaitMs = 5000;
// A farther start time is as good as never, and would overflow the steady clock.
constexpr int64_t kMaxStartDelay = int64_t{100} * 366 * 24 * 3600;

template <class Fn>
void RunGuarded(const std::string& taskName, const char* stage, Fn&& fn) {
    try {
        fn();
    } catch (const Poco::Exception& e) {
        HOST_LOG_ERROR("task " + taskName + ": " + stage + " failed: " + e.displayText());
    } catch (const std::exception& e) {
        HOST_LOG_ERROR("task " + taskName + ": " + stage + " failed: " + e.what());
    }
}

int64_t IntervalSeconds(const TaskCondition::Record& record) {
    // Parse refuses such intervals, but SetTaskCondition takes any record.
    if (record.repeatInterval <= 0 || record.repeatInterval > std::numeric_limits<int32_t>::max()) {
        return TaskCondition::Record().repeatInterval;
    }
    return record.repeatInterval;
}

// Seconds from `now` to the first run: at once without a start time, the start
// time when it lies ahead, otherwise the next slot of the start time's grid.
int64_t FirstRunDelay(const TaskCondition::Record& record, int64_t now) {
    if (record.startTime <= 0) {
        return 0;
    }
    if (record.startTime >= now) {
        return std::min(record.startTime - now, kMaxStartDelay);
    }
    const int64_t interval = IntervalSeconds(record);
    const int64_t rest = (now - record.startTime) % interval;
    return rest == 0 ? 0 : interval - rest;
}

// False when the task was stopped before the deadline.
bool SleepUntil(Task& task, SteadyClock::time_point deadline) {
    while (!task.IsStopRequested()) {
        const auto now = SteadyClock::now();
        if (now >= deadline) {
            return true;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
        if (task.sleep(std::min<long>(static_cast<long>(left), kSleepSliceMs))) {
            return false;
        }
    }
    return false;
}

}  // namespace

Task::Task(const std::string& taskName, const std::string& featureName, TaskCondition::TaskType type,
           unsigned int count)
    : Poco::Task(taskName),
      featureName_(featureName),
      type_(type),
      capacity_(count == 0 ? kDefaultQueueCapacity : count) {}

Task::~Task() {
    for (auto& flagEntry : consumers_) {
        for (auto& consumerEntry : flagEntry.second) {
            consumerEntry.second.consumer->release();
        }
    }
}

int Task::Init() {
    return 0;
}

int Task::Run() {
    return 0;
}

void Task::UnInit() {}

TaskPolicy* Task::GetTaskPolicy() {
    std::lock_guard<std::mutex> lock(policyMutex_);
    ++policyTakes_;
    currentPolicyVersion_.store(pendingPolicyVersion_.load());
    return taskPolicy_;
}

FeaturePolicy* Task::GetFeaturePolicy() {
    std::lock_guard<std::mutex> lock(policyMutex_);
    return featurePolicy_;
}

void Task::AttachTaskPolicy(TaskPolicy* policy) {
    std::lock_guard<std::mutex> lock(policyMutex_);
    if (policy != taskPolicy_) {
        taskPolicy_ = policy;
        if (policy != nullptr) {
            ++pendingPolicyVersion_;
        }
    }
}

void Task::AttachFeaturePolicy(FeaturePolicy* policy) {
    std::lock_guard<std::mutex> lock(policyMutex_);
    featurePolicy_ = policy;
}

void Task::DetachPolicies(const std::set<const Policy*>& doomed) {
    std::lock_guard<std::mutex> lock(policyMutex_);
    if (doomed.count(taskPolicy_) != 0) {
        taskPolicy_ = nullptr;
    }
    if (doomed.count(featurePolicy_) != 0) {
        featurePolicy_ = nullptr;
    }
}

TaskCondition Task::GetTaskCondition() const {
    std::lock_guard<std::mutex> lock(policyMutex_);
    return condition_;
}

void Task::SetTaskCondition(const TaskCondition& condition) {
    std::lock_guard<std::mutex> lock(policyMutex_);
    condition_ = condition;
}

void Task::cancel() {
    // Recorded first: the thread may not have started yet, and Poco's run() would
    // overwrite the cancelling state when it does.
    stopRequested_.store(true);
    Poco::Task::cancel();
    { std::lock_guard<std::mutex> lock(queueMutex_); }
    queueCond_.notify_all();
}

void Task::Execute() {
    if (IsStopRequested()) {
        setState(TASK_FINISHED);
        return;
    }
    setState(TASK_RUNNING);
    MarkProgress();
    // A cancel() between the check above and setState must stay visible.
    if (IsStopRequested()) {
        setState(TASK_CANCELLING);
    }
    RunGuarded(name(), "life cycle", [this] { runTask(); });
    setState(TASK_FINISHED);
}

void Task::MarkProgress() {
    lastProgressMs_.store(ProgressClockMs());
}

int64_t Task::ProgressClockMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(SteadyClock::now().time_since_epoch())
        .count();
}

void Task::PrepareRestart() {
    reset();
    stopRequested_.store(false);
}

void Task::runTask() {
    RunGuarded(name(), "Init", [this] {
        const int result = Init();
        HOST_LOG_DEBUG("task " + name() + ": Init returned " + std::to_string(result));
    });
    switch (type_) {
        case TaskCondition::TASK_TYPE_PERIODIC:
            RunPeriodic();
            break;
        case TaskCondition::TASK_TYPE_MESSAGE:
            RunMessageLoop();
            break;
        case TaskCondition::TASK_TYPE_RESIDENT:
        default:
            if (type_ != TaskCondition::TASK_TYPE_RESIDENT) {
                HOST_LOG_WARNING("task " + name() + ": unknown task type " + std::to_string(type_) +
                                 ", run as resident");
            }
            RunGuarded(name(), "Run", [this] { Run(); });
            // UnInit belongs to the unregistration, even when Run gave up early.
            while (!IsStopRequested()) {
                sleep(kSleepSliceMs);
            }
            break;
    }
    RunGuarded(name(), "UnInit", [this] { UnInit(); });
}

void Task::RunPeriodic() {
    Metrics& metrics = Metrics::Instance();
    MetricCounter& runs = metrics.Counter("corvane_task_runs_total",
                                          "Runs (detection cycles) of periodic tasks", {{"task", name()}});
    MetricHistogram& duration =
        metrics.Histogram("corvane_task_run_duration_seconds", "How long one run of a periodic task took",
                          {0.01, 0.05, 0.1, 0.5, 1, 2, 5, 10, 30, 60, 120}, {{"task", name()}});
    const TaskCondition::Record first = GetTaskCondition().GetTaskCondition();
    auto next = SteadyClock::now() + std::chrono::seconds(FirstRunDelay(first, std::time(nullptr)));
    while (SleepUntil(*this, next)) {
        MarkProgress();
        const auto started = SteadyClock::now();
        RunGuarded(name(), "Run", [this] { Run(); });
        MarkProgress();
        ++completedRuns_;
        runs.Increment();
        duration.Observe(std::chrono::duration<double>(SteadyClock::now() - started).count());
        if (Engine* engine = Engine::Instance()) {
            engine->OnPeriodicRunEnded(*this);
        }
        // Fixed rate: the next slot follows the previous one, and slots missed by a
        // long Run are skipped rather than run back to back.
        const std::chrono::seconds interval(IntervalSeconds(GetTaskCondition().GetTaskCondition()));
        next += interval;
        const auto now = SteadyClock::now();
        if (next <= now) {
            next += interval * ((now - next) / interval + 1);
        }
    }
}

void Task::RunMessageLoop() {
    while (!IsStopRequested()) {
        if (WaitForMsg(kMessageWaitMs)) {
            BulkConsumeMsg(kMessageBatch);
        }
    }
}

}  // namespace Framework
