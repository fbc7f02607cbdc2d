#pragma once

#include <memory>
#include <string>
#include <vector>

#include "AlertSink.h"
#include "report/ReportSettings.h"

namespace Agent {

// Builds the sink an "alerts.sinks" entry describes.
class AlertSinkFactory {
public:
    // Null with the reason in `error` when the sink cannot be made (a missing
    // token file, a bad librdkafka property...).
    static std::unique_ptr<AlertSink> Make(const SinkSettings& settings, std::string& error);

    // What keeps the sink from delivering, as far as can be seen without connecting
    // anywhere or blocking. The report task logs these at start (and does not start a
    // sink one of them refuses); --check reports them.
    static std::vector<SinkProblem> Check(const SinkSettings& settings);

    // What is wrong and what the agent does about it ("/etc/ca.pem: No such file or
    // directory; the sink delivers nothing until..."), to follow the problem's key.
    static std::string Explain(const SinkProblem& problem);
};

}  // namespace Agent
