#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Agent {

// One entry of agent.json "alerts.sinks". Only the fields of its type are used.
struct SinkSettings {
    std::string type;  // "stdout", "file", "syslog", "relp", "webhook", "kafka"
    std::string name;  // names its spool position; unique, defaults to the type
    // Where agent.json sets the sink, for messages: "alerts.sinks[2]", or "alerts.file"
    // for the sink that key adds on its own.
    std::string origin;
    bool envelope = false;  // wrap each alert in the SIEM envelope
    // The longest message the destination takes; 0: the type's default (syslog
    // and RELP 8 KiB, rsyslog's; Kafka message.max.bytes; webhook 1 MiB; files
    // any length). A longer alert is split by its process entries.
    uint64_t maxMessageBytes = 0;

    // file
    std::string path;
    uint64_t rotateBytes = 50ull * 1024 * 1024;  // 0: never rotate
    int keepFiles = 5;

    // syslog: a local socket ("/dev/log") or host:port over TCP (RFC 6587 framing);
    // relp: host:port
    std::string socket;
    std::string host;
    int port = 0;
    bool tls = false;
    std::string caFile;  // TLS (syslog, webhook): extra CA bundle; empty = the system's

    // webhook
    std::string url;
    std::string format = "lines";  // "lines": JSON lines; "array": one JSON array per batch
    std::string tokenFile;         // bearer token, read from a private file
    std::string headerFile;        // "Name: value" lines added to each request
    bool verify = true;
    int timeoutSeconds = 10;
    size_t batch = 500;

    // kafka
    std::string brokers;
    std::string topic;
    std::string key;                                // message key; empty: the host name
    std::map<std::string, std::string> properties;  // passed to librdkafka as they are

    // The dotted agent.json key of the sink's `member` ("alerts.sinks[2].ca_file"); the
    // sinks of "alerts.stdout" and "alerts.file" are that one key.
    std::string KeyOf(const std::string& member) const;
};

// Where the report task writes alerts, and its spool.
struct ReportSettings {
    // The keys "alerts.stdout" and "alerts.file" of agent.json: each adds a sink.
    bool toStdout = false;
    std::string filePath;                        // empty: no alert file
    uint64_t rotateBytes = 50ull * 1024 * 1024;  // 0: never rotate
    int keepFiles = 5;

    std::vector<SinkSettings> sinks;  // "alerts.sinks"

    std::string spoolDir;  // empty: <prefix>/var/spool
    uint64_t spoolMaxBytes = 256ull * 1024 * 1024;
    int retrySeconds = 2;  // first wait after a failed delivery; doubles up to retryMaxSeconds
    int retryMaxSeconds = 60;
    int stopDrainSeconds = 10;  // at stop, deliver what the sinks still take for at most this long

    // Every sink: the "stdout" and "file" keys first, then "sinks".
    std::vector<SinkSettings> AllSinks() const;
};

}  // namespace Agent
