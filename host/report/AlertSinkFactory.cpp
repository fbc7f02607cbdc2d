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
