#include "TaskWatchdog.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "ServiceNotifier.h"
#include "framework/Engine.h"
#include "framework/Metrics.h"
#include "framework/Task.h"
#include "sdk/HostLog.h"

namespace Agent {

namespace {

constexpr int64_t kStatusOnlyTickMs = 5000;

}  // namespace

TaskWatchdog::TaskWatchdog(Framework::Engine& engine) : engine_(engine) {}

TaskWatchdog::~TaskWatchdog() {
    Stop();
}

void TaskWatchdog::Start() {
    if (std::getenv("NOTIFY_SOCKET") == nullptr || thread_.joinable()) {
        return;
    }
    const int64_t watchdogMs = static_cast<int64_t>(ServiceNotifier::WatchdogMicros() / 1000);
    // Twice per interval, as systemd advises, so one late tick does not cost a restart.
    const int64_t tickMs = watchdogMs > 0 ? std::max<int64_t>(watchdogMs / 2, 1) : kStatusOnlyTickMs;
    const int64_t marginMs = std::max(watchdogMs, kMinMarginMs);
    if (watchdogMs > 0) {
        HOST_LOG_INFO("watchdog: heartbeat every " + std::to_string(tickMs) +
                      " ms while every task progresses (margin " + std::to_string(marginMs) + " ms)");
    }
    thread_ = std::thread([this, tickMs, marginMs, watchdogMs] {
        Loop(watchdogMs > 0 ? tickMs : kStatusOnlyTickMs, watchdogMs > 0 ? marginMs : 0);
    });
}

void TaskWatchdog::Stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void TaskWatchdog::Loop(int64_t tickMs, int64_t marginMs) {
    std::string lastStatus;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, std::chrono::milliseconds(tickMs), [this] { return stop_; })) {
        lock.unlock();
        if (marginMs > 0 && FindStuck(marginMs).empty()) {
            ServiceNotifier::Heartbeat();
        }
        const std::string status = Summary();
        if (status != lastStatus) {
            ServiceNotifier::Status(status);
            lastStatus = status;
        }
        lock.lock();
    }
}

std::set<std::string> TaskWatchdog::FindStuck(int64_t marginMs) {
    const int64_t now = Framework::Task::ProgressClockMs();
    std::set<std::string> stuck;
    for (const Framework::Engine::TaskStatus& task : engine_.GetTaskStatus()) {
        if (task.lastProgressMs == 0) {
            continue;  // not started yet
        }
        const int64_t allowedMs = (task.periodic ? task.intervalSeconds * 1000 : 0) + marginMs;
        const int64_t silentMs = now - task.lastProgressMs;
        if (silentMs <= allowedMs) {
            continue;
        }
        stuck.insert(task.name);
        if (stuck_.count(task.name) == 0) {
            HOST_LOG_ERROR("watchdog: task " + task.name + " has made no progress for " +
                           std::to_string(silentMs / 1000) + " s (allowed " +
                           std::to_string(allowedMs / 1000) +
                           " s); heartbeat stopped, so systemd restarts the agent");
        }
    }
    for (const std::string& name : stuck_) {
        if (stuck.count(name) == 0) {
            HOST_LOG_WARNING("watchdog: task " + name + " makes progress again");
        }
    }
    stuck_ = stuck;
    return stuck;
}

std::string TaskWatchdog::Summary() {
    const std::vector<Framework::Engine::TaskStatus> tasks = engine_.GetTaskStatus();
    unsigned long runs = 0;
    for (const auto& task : tasks) {
        runs += task.completedRuns;
    }
    const int64_t now = Framework::Task::ProgressClockMs();
    std::lock_guard<std::mutex> lock(summaryMutex_);
    if (runs != runsSeen_) {
        runsSeen_ = runs;
        lastCycleMs_ = now;
    }
    double alerts = 0;
    for (const Framework::Metrics::Family& family : Framework::Metrics::Instance().Read()) {
        if (family.name == "corvane_alerts_sent_total") {
            for (const auto& series : family.series) {
                alerts += series.value;
            }
        }
    }
    return std::to_string(tasks.size()) + " tasks running; last detection cycle " +
           (lastCycleMs_ == 0 ? std::string("none yet")
                              : std::to_string((now - lastCycleMs_) / 1000) + " s ago") +
           "; " + std::to_string(static_cast<unsigned long>(alerts)) + " alerts sent";
}

}  // namespace Agent
