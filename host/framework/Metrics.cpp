#include "framework/Metrics.h"

#include <algorithm>
#include <stdexcept>

namespace Framework {

void MetricCounter::Increment(double amount) {
    double current = value_.load();
    while (!value_.compare_exchange_weak(current, current + amount)) {
    }
}

MetricHistogram::MetricHistogram(std::vector<double> upperBounds)
    : upperBounds_(std::move(upperBounds)), counts_(upperBounds_.size() + 1, 0) {}

void MetricHistogram::Observe(double value) {
    const size_t bucket = static_cast<size_t>(
        std::lower_bound(upperBounds_.begin(), upperBounds_.end(), value) - upperBounds_.begin());
    std::lock_guard<std::mutex> lock(mutex_);
    ++counts_[bucket];
    sum_ += value;
}

MetricHistogram::Snapshot MetricHistogram::Read() const {
    Snapshot snapshot;
    snapshot.upperBounds = upperBounds_;
    std::lock_guard<std::mutex> lock(mutex_);
    uint64_t running = 0;
    for (uint64_t count : counts_) {
        running += count;
        snapshot.cumulativeCounts.push_back(running);
    }
    snapshot.count = running;
    snapshot.sum = sum_;
    return snapshot;
}

Metrics& Metrics::Instance() {
    static Metrics metrics;
    return metrics;
}

Metrics::Entry& Metrics::Find(const std::string& name, const std::string& help, Type type) {
    auto found = families_.find(name);
    if (found == families_.end()) {
        found = families_.emplace(name, Entry{help, type, {}, {}, {}}).first;
    } else if (found->second.type != type) {
        // Two publishers disagree about a name: a programming error, found at start-up.
        throw std::logic_error("metric " + name + " is already registered with another type");
    }
    return found->second;
}

MetricCounter& Metrics::Counter(const std::string& name, const std::string& help,
                                const MetricLabels& labels) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& slot = Find(name, help, Type::kCounter).counters[labels];
    if (!slot) {
        slot = std::make_unique<MetricCounter>();
    }
    return *slot;
}

MetricGauge& Metrics::Gauge(const std::string& name, const std::string& help, const MetricLabels& labels) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& slot = Find(name, help, Type::kGauge).gauges[labels];
    if (!slot) {
        slot = std::make_unique<MetricGauge>();
    }
    return *slot;
}

MetricHistogram& Metrics::Histogram(const std::string& name, const std::string& help,
                                    const std::vector<double>& upperBounds, const MetricLabels& labels) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& slot = Find(name, help, Type::kHistogram).histograms[labels];
    if (!slot) {
        slot = std::make_unique<MetricHistogram>(upperBounds);
    }
    return *slot;
}

void Metrics::AddRefresher(const void* owner, std::function<void()> refresh) {
    std::lock_guard<std::mutex> lock(refreshMutex_);
    refreshers_.emplace_back(owner, std::move(refresh));
}

void Metrics::RemoveRefreshers(const void* owner) {
    std::lock_guard<std::mutex> lock(refreshMutex_);
    refreshers_.erase(std::remove_if(refreshers_.begin(), refreshers_.end(),
                                     [owner](const auto& entry) { return entry.first == owner; }),
                      refreshers_.end());
}

std::vector<Metrics::Family> Metrics::Read() {
    {
        // Held while refreshing, so that RemoveRefreshers waits for a refresh in flight.
        std::lock_guard<std::mutex> lock(refreshMutex_);
        for (const auto& entry : refreshers_) {
            entry.second();
        }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Family> families;
    for (const auto& named : families_) {
        Family family{named.first, named.second.help, named.second.type, {}};
        for (const auto& series : named.second.counters) {
            family.series.push_back({series.first, series.second->Value(), {}});
        }
        for (const auto& series : named.second.gauges) {
            family.series.push_back({series.first, series.second->Value(), {}});
        }
        for (const auto& series : named.second.histograms) {
            family.series.push_back({series.first, 0.0, series.second->Read()});
        }
        families.push_back(std::move(family));
    }
    return families;
}

}  // namespace Framework
