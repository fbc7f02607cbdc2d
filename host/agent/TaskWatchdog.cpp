#include "TaskWatchdog.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "ServiceNotifier.h"
#include "framework/Engine.h"
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

void TaskWatchdog::CycleEnded() {
    lastCycleMs_ = Framework::Task::ProgressClockMs();
    RequestStatus();
}

void TaskWatchdog::AlertsTaken(uint64_t total) {
    alertsTaken_ = total;
    RequestStatus();
}

void TaskWatchdog::RequestStatus() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        statusRequested_ = true;
    }
    wake_.notify_all();
}

void TaskWatchdog::Loop(int64_t tickMs, int64_t marginMs) {
    using Clock = std::chrono::steady_clock;
    std::string lastStatus;
    auto nextTick = Clock::now() + std::chrono::milliseconds(tickMs);
    Clock::time_point lastSent;  // long ago
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stop_) {
        const auto now = Clock::now();
        const auto statusDue = lastSent + std::chrono::milliseconds(kMinStatusIntervalMs);
        const bool tick = now >= nextTick;
        if (!tick && !(statusRequested_ && now >= statusDue)) {
            // Woken early by a request; one within the interval waits for its end.
            wake_.wait_until(lock, statusRequested_ ? std::min(nextTick, statusDue) : nextTick);
            continue;
        }
        statusRequested_ = false;
        lock.unlock();
        if (tick) {
            nextTick = now + std::chrono::milliseconds(tickMs);
            if (marginMs > 0 && FindStuck(marginMs).empty()) {
                ServiceNotifier::Heartbeat();
            }
        }
        const std::string status = Summary();
        if (status != lastStatus) {
            ServiceNotifier::Status(status);
            lastStatus = status;
            lastSent = now;
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
    const size_t tasks = engine_.GetTaskStatus().size();
    const int64_t lastCycleMs = lastCycleMs_;
    return std::to_string(tasks) + " tasks running; last detection cycle " +
           (lastCycleMs == 0
                ? std::string("none yet")
                : std::to_string((Framework::Task::ProgressClockMs() - lastCycleMs) / 1000) + " s ago") +
           "; " + std::to_string(alertsTaken_.load()) + " alerts sent";
}

}  // namespace Agent
