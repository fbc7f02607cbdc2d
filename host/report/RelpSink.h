#pragma once

#include <string>

#include "AlertSink.h"
#include "RelpLibrary.h"
#include "report/ReportSettings.h"

namespace Agent {

// Alerts to a syslog relay over RELP (rsyslog's reliable event logging
// protocol, its imrelp input), through librelp, as the same RFC 5424 messages
// as SyslogSink. The relay answers every message; a message counts as
// delivered only once answered with success, so the spool position never
// passes an alert the relay has not taken. Each batch is one RELP session:
// the relay answers the closing command after every message before it, so a
// session closed cleanly confirms the whole batch; one that breaks confirms
// the messages older than the last window (librelp waits for an answer before
// it has more than a window unanswered).
class RelpSink : public AlertSink {
public:
    RelpSink(const SinkSettings& settings, std::string hostName);
    ~RelpSink() override;

    RelpSink(const RelpSink&) = delete;
    RelpSink& operator=(const RelpSink&) = delete;

    size_t Deliver(const std::vector<std::string>& lines, std::string& error) override;
    std::string Describe() const override;
    size_t MaxLineBytes() const override;

private:
    static void OnError(void* user, char* where, char* message, relpRetVal code);

    const SinkSettings settings_;
    const std::string hostName_;
    const RelpLibrary* relp_ = nullptr;  // loaded at the first delivery
    relpEngine_t* engine_ = nullptr;
    bool failed_ = false;  // librelp reported an error in this session
    std::string lastError_;
};

}  // namespace Agent
