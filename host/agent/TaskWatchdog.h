#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace Framework {
class Engine;
}

namespace Agent {

// Feeds systemd's watchdog only while every task thread makes progress, and
// keeps the one-line STATUS= current. A task is stuck when its last progress
// stamp (Framework::Task::MarkProgress) is older than its repeat interval (for
// periodic tasks) plus a margin of one watchdog interval, at least kMinMarginMs:
// the stuck task is named in the log and the heartbeat stops, so systemd
// restarts the agent.
//
// The status line goes out on every tick and as soon as a detection cycle ends
// or alerts are taken, at most once per kMinStatusIntervalMs (a burst of alerts
// makes one update), from the same thread.
class TaskWatchdog {
public:
    static constexpr int64_t kMinMarginMs = 10000;
    static constexpr int64_t kMinStatusIntervalMs = 1000;

    explicit TaskWatchdog(Framework::Engine& engine);
    ~TaskWatchdog();  // stops the thread

    TaskWatchdog(const TaskWatchdog&) = delete;
    TaskWatchdog& operator=(const TaskWatchdog&) = delete;

    // Starts the thread when systemd listens (NOTIFY_SOCKET set).
    void Start();
    void Stop();
    // The status line: tasks running, last detection cycle, alerts sent.
    std::string Summary();
    // Any thread, quick: a periodic task's run ended; the report task has taken `total` alerts.
    void CycleEnded();
    void AlertsTaken(uint64_t total);

private:
    void Loop(int64_t tickMs, int64_t marginMs);
    // Names of the tasks stuck now; logs each newly stuck one.
    std::set<std::string> FindStuck(int64_t marginMs);
    void RequestStatus();

    Framework::Engine& engine_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    bool statusRequested_ = false;
    std::thread thread_;
    std::set<std::string> stuck_;
    std::atomic<int64_t> lastCycleMs_{0};
    std::atomic<uint64_t> alertsTaken_{0};
};

}  // namespace Agent
