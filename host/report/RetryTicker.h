#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace Agent {

// Calls a function every `periodSeconds` on a thread of its own until stopped.
class RetryTicker {
public:
    RetryTicker() = default;
    ~RetryTicker();

    RetryTicker(const RetryTicker&) = delete;
    RetryTicker& operator=(const RetryTicker&) = delete;

    // Starts the thread (a running ticker is stopped first).
    void Start(int periodSeconds, std::function<void()> tick);
    // Stops and joins the thread; harmless when not running.
    void Stop();

private:
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    std::thread thread_;
};

}  // namespace Agent
