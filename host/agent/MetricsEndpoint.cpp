#include "MetricsEndpoint.h"

#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>

#include <exception>

#include "framework/Metrics.h"

namespace Agent {

// Turns the framework's figures into prometheus-cpp's families at each scrape.
class FrameworkCollectable : public prometheus::Collectable {
public:
    std::vector<prometheus::MetricFamily> Collect() const override {
        std::vector<prometheus::MetricFamily> out;
        for (const Framework::Metrics::Family& family : Framework::Metrics::Instance().Read()) {
            prometheus::MetricFamily converted;
            converted.name = family.name;
            converted.help = family.help;
            converted.type = TypeOf(family.type);
            for (const Framework::Metrics::Series& series : family.series) {
                prometheus::ClientMetric metric;
                for (const auto& label : series.labels) {
                    metric.label.push_back({label.first, label.second});
                }
                if (family.type == Framework::Metrics::Type::kCounter) {
                    metric.counter.value = series.value;
                } else if (family.type == Framework::Metrics::Type::kGauge) {
                    metric.gauge.value = series.value;
                } else {
                    const auto& histogram = series.histogram;
                    metric.histogram.sample_count = histogram.count;
                    metric.histogram.sample_sum = histogram.sum;
                    for (size_t index = 0; index < histogram.upperBounds.size(); ++index) {
                        metric.histogram.bucket.push_back(
                            {histogram.cumulativeCounts[index], histogram.upperBounds[index]});
                    }
                    metric.histogram.bucket.push_back(
                        {histogram.count, std::numeric_limits<double>::infinity()});
                }
                converted.metric.push_back(std::move(metric));
            }
            out.push_back(std::move(converted));
        }
        return out;
    }

private:
    static prometheus::MetricType TypeOf(Framework::Metrics::Type type) {
        switch (type) {
            case Framework::Metrics::Type::kCounter:
                return prometheus::MetricType::Counter;
            case Framework::Metrics::Type::kGauge:
                return prometheus::MetricType::Gauge;
            case Framework::Metrics::Type::kHistogram:
                return prometheus::MetricType::Histogram;
        }
        return prometheus::MetricType::Untyped;
    }
};

MetricsEndpoint::MetricsEndpoint() = default;

MetricsEndpoint::~MetricsEndpoint() = default;

bool MetricsEndpoint::Start(const std::string& listen, std::string& error) {
    try {
        exposer_ = std::make_unique<prometheus::Exposer>(listen, 1);
    } catch (const std::exception& failure) {
        error = "cannot serve metrics on " + listen + ": " + failure.what();
        return false;
    }
    collectable_ = std::make_shared<FrameworkCollectable>();
    exposer_->RegisterCollectable(collectable_);
    return true;
}

int MetricsEndpoint::GetPort() const {
    if (!exposer_) {
        return 0;
    }
    const std::vector<int> ports = exposer_->GetListeningPorts();
    return ports.empty() ? 0 : ports.front();
}

}  // namespace Agent
