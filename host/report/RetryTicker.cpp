#include "RetryTicker.h"

#include <chrono>
#include <utility>

namespace Agent {

RetryTicker::~RetryTicker() {
    Stop();
}

void RetryTicker::Start(int periodSeconds, std::function<void()> tick) {
    Stop();
    const auto period = std::chrono::seconds(periodSeconds > 0 ? periodSeconds : 1);
    stop_ = false;
    thread_ = std::thread([this, period, tick = std::move(tick)] {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!wake_.wait_for(lock, period, [this] { return stop_; })) {
            lock.unlock();
            tick();
            lock.lock();
        }
    });
}

void RetryTicker::Stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

}  // namespace Agent
