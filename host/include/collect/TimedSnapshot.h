#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>

namespace Engine {

// A table taken on demand: readers get the last one while it is younger than the
// refresh interval, and the first reader after that takes a new one. Readers copy
// the table outside the lock so they do not hold each other up; the table itself
// is never changed once taken.
template <class Map>
class TimedSnapshot {
public:
    explicit TimedSnapshot(int refreshSeconds) : refreshSeconds_(std::max(1, refreshSeconds)) {}

    // Fills `out` (replacing its contents) and returns its size. `refresh(Map& fresh)`
    // fills a new table when the last one is stale; it runs one call at a time, so
    // what it uses may be guarded by that alone.
    template <class RefreshFn>
    int Get(Map& out, RefreshFn&& refresh) {
        RefreshIfStale(refresh);
        std::shared_ptr<const Map> snapshot;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            snapshot = snapshot_;
        }
        if (snapshot) {
            out = *snapshot;
        } else {
            out.clear();
        }
        return static_cast<int>(out.size());
    }

    // At least 1 s; safe from any thread.
    void SetRefreshSeconds(int seconds) { refreshSeconds_.store(std::max(1, seconds)); }

private:
    static long long SteadyNowMs() {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

    template <class RefreshFn>
    void RefreshIfStale(RefreshFn& refresh) {
        std::lock_guard<std::mutex> refreshLock(refreshMutex_);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (snapshot_ && SteadyNowMs() - takenAtMs_ < refreshSeconds_.load() * 1000LL) {
                return;
            }
        }
        auto fresh = std::make_shared<Map>();
        refresh(*fresh);
        const long long takenAt = SteadyNowMs();
        std::lock_guard<std::mutex> lock(mutex_);
        snapshot_ = std::move(fresh);
        takenAtMs_ = takenAt;
    }

    std::atomic<int> refreshSeconds_;
    std::mutex mutex_;  // guards snapshot_ and takenAtMs_
    std::shared_ptr<const Map> snapshot_;
    long long takenAtMs_ = -1;
    std::mutex refreshMutex_;  // one refresh at a time
};

}  // namespace Engine
