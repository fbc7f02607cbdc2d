#pragma once

#include <string>

#include "AlertSink.h"
#include "TlsLibrary.h"
#include "report/ReportSettings.h"

namespace Agent {

// Alerts as RFC 5424 syslog messages: app name "corvane-agent", msgid the
// alert's event class, the alert JSON as the message. To the local socket
// (normally /dev/log, one datagram per alert), or to a relay over TCP with
// RFC 6587 octet counting, optionally TLS with the certificate and the host
// name verified (against `ca_file`, read again for each connection, or the
// system's CAs). A datagram counts as delivered once the socket took it; a
// frame once the relay's TCP acknowledged it (what was written but not
// acknowledged when the connection broke is sent again on the next one).
// Messages are at most `max_message_bytes` (default 8 KiB, rsyslog's
// maxMessageSize) and, on the local socket, what it takes in one datagram.
class SyslogSink : public AlertSink {
public:
    SyslogSink(const SinkSettings& settings, std::string hostName);
    ~SyslogSink() override;

    SyslogSink(const SyslogSink&) = delete;
    SyslogSink& operator=(const SyslogSink&) = delete;

    // What keeps a sink of `settings` from delivering that can be seen without
    // connecting: the local socket (exists, is a socket), the CA bundle of a TLS relay.
    static std::vector<SinkProblem> Check(const SinkSettings& settings);

    size_t Deliver(const std::vector<std::string>& lines, std::string& error) override;
    std::string Describe() const override;
    size_t MaxLineBytes() const override;

    // The RFC 5424 message for one alert line (without framing).
    static std::string Format(const std::string& line, const std::string& hostName, int pid);
    // The most bytes Format puts before the alert.
    static size_t HeaderBytes(const std::string& hostName);

private:
    bool Connect(std::string& error);
    bool StartTls(std::string& error);
    void Disconnect();
    size_t SendDatagrams(const std::vector<std::string>& lines, std::string& error);
    size_t SendFrames(const std::vector<std::string>& lines, std::string& error);
    // `sent`: how much of `data` went out, also when it fails.
    bool WriteAll(const std::string& data, std::string& error, size_t& sent);
    // Waits until the relay's TCP has acknowledged every byte written; false
    // when it went away or took too long. `unacknowledged`: bytes still queued.
    bool WaitAcknowledged(size_t& unacknowledged);

    const SinkSettings settings_;
    const std::string hostName_;
    size_t datagramLimit_;  // the longest datagram the local socket takes
    int fd_ = -1;
    const TlsLibrary* tls_ = nullptr;  // loaded at the first TLS connection
    SSL_CTX* context_ = nullptr;
    SSL* ssl_ = nullptr;
};

}  // namespace Agent
