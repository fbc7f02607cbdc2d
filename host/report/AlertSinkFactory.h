#pragma once

#include <memory>
#include <string>

#include "AlertSink.h"
#include "report/ReportSettings.h"

namespace Agent {

// Builds the sink an "alerts.sinks" entry describes.
class AlertSinkFactory {
public:
    // Null with the reason in `error` when the sink cannot be made (a missing
    // token file, a bad librdkafka property...).
    static std::unique_ptr<AlertSink> Make(const SinkSettings& settings, std::string& error);
};

}  // namespace Agent
