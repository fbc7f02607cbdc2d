#include "AlertSinkFactory.h"

#include <unistd.h>

#include "AlertFileSink.h"
#include "AlertStreamSink.h"
#include "KafkaSink.h"
#include "RelpSink.h"
#include "SiemEnvelope.h"
#include "SyslogSink.h"
#include "WebhookSink.h"

namespace Agent {

std::vector<SinkProblem> AlertSinkFactory::Check(const SinkSettings& settings) {
    if (settings.type == "file") {
        return AlertFileSink::Check(settings.path);
    }
    if (settings.type == "syslog") {
        return SyslogSink::Check(settings);
    }
    if (settings.type == "webhook") {
        return WebhookSink::Check(settings);
    }
    if (settings.type == "kafka") {
        return KafkaSink::Check(settings);
    }
    // Standard output is there or not; a RELP relay has only its address.
    return {};
}

std::string AlertSinkFactory::Explain(const SinkProblem& problem) {
    return problem.what + (problem.refusesSink
                               ? "; the sink is not started"
                               : "; the sink delivers nothing until this is fixed (its alerts wait in "
                                 "the spool)");
}

std::unique_ptr<AlertSink> AlertSinkFactory::Make(const SinkSettings& settings, std::string& error) {
    if (settings.type == "stdout" || settings.type == "file") {
        std::unique_ptr<AlertSink> sink;
        if (settings.type == "stdout") {
            sink = std::make_unique<AlertStreamSink>(STDOUT_FILENO, "standard output");
        } else {
            sink = std::make_unique<AlertFileSink>(settings.path, settings.rotateBytes, settings.keepFiles);
        }
        sink->LimitLines(static_cast<size_t>(settings.maxMessageBytes));
        return sink;
    }
    if (settings.type == "syslog") {
        return std::make_unique<SyslogSink>(settings, SiemEnvelope::HostName());
    }
    if (settings.type == "relp") {
        return std::make_unique<RelpSink>(settings, SiemEnvelope::HostName());
    }
    if (settings.type == "webhook") {
        return std::make_unique<WebhookSink>(settings);
    }
    if (settings.type == "kafka") {
        auto sink = std::make_unique<KafkaSink>(settings, SiemEnvelope::HostName());
        if (!sink->Create(error)) {
            return nullptr;
        }
        return sink;
    }
    error = "unknown sink type \"" + settings.type + "\"";
    return nullptr;
}

}  // namespace Agent
