#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Framework {

// Health figures that host tasks and modules publish, and that the agent serves
// to Prometheus when its metrics listener is on. Publishing costs an atomic
// operation and needs no exporter: a module links only the framework, and what
// a module that is not loaded would publish never appears.
//
// Names follow the Prometheus conventions ("corvane_<what>_<unit>", counters
// end in "_total"). A name always has one type, one help text and, per set of
// label values, one series; asking again returns the same object, which lives
// as long as the process.
using MetricLabels = std::map<std::string, std::string>;

class MetricCounter {
public:
    void Increment(double amount = 1.0);
    // For a figure counted elsewhere: publishes that running total as it stands.
    void SetTotal(double total) { value_.store(total); }
    double Value() const { return value_.load(); }

private:
    std::atomic<double> value_{0.0};
};

class MetricGauge {
public:
    void Set(double value) { value_.store(value); }
    double Value() const { return value_.load(); }

private:
    std::atomic<double> value_{0.0};
};

class MetricHistogram {
public:
    explicit MetricHistogram(std::vector<double> upperBounds);
    void Observe(double value);

    struct Snapshot {
        std::vector<double> upperBounds;
        std::vector<uint64_t> cumulativeCounts;  // one per bound, then +Inf
        uint64_t count = 0;
        double sum = 0.0;
    };
    Snapshot Read() const;

private:
    const std::vector<double> upperBounds_;
    mutable std::mutex mutex_;
    std::vector<uint64_t> counts_;  // per bucket, not cumulative; the last is +Inf
    double sum_ = 0.0;
};

class Metrics {
public:
    enum class Type { kCounter, kGauge, kHistogram };

    static Metrics& Instance();

    MetricCounter& Counter(const std::string& name, const std::string& help, const MetricLabels& labels = {});
    MetricGauge& Gauge(const std::string& name, const std::string& help, const MetricLabels& labels = {});
    // `upperBounds` ascending; used by the first call for that name.
    MetricHistogram& Histogram(const std::string& name, const std::string& help,
                               const std::vector<double>& upperBounds, const MetricLabels& labels = {});

    // `refresh` runs before every read of the metrics, so that an owner can copy
    // figures it keeps anyway (Set, SetTotal). It must be removed (by its owner
    // key) before whatever it reads goes away.
    void AddRefresher(const void* owner, std::function<void()> refresh);
    void RemoveRefreshers(const void* owner);

    struct Series {
        MetricLabels labels;
        double value = 0.0;                   // counters and gauges
        MetricHistogram::Snapshot histogram;  // histograms
    };
    struct Family {
        std::string name;
        std::string help;
        Type type = Type::kCounter;
        std::vector<Series> series;
    };
    // Runs the refreshers, then copies every series.
    std::vector<Family> Read();

private:
    struct Entry {
        std::string help;
        Type type;
        std::map<MetricLabels, std::unique_ptr<MetricCounter>> counters;
        std::map<MetricLabels, std::unique_ptr<MetricGauge>> gauges;
        std::map<MetricLabels, std::unique_ptr<MetricHistogram>> histograms;
    };
    Entry& Find(const std::string& name, const std::string& help, Type type);

    std::mutex mutex_;
    std::map<std::string, Entry> families_;
    std::mutex refreshMutex_;
    std::vector<std::pair<const void*, std::function<void()>>> refreshers_;
};

}  // namespace Framework
