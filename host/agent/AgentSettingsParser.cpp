#include "AgentSettingsParser.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <json/json.h>

#include <algorithm>
#include <cctype>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "JsonText.h"

namespace Agent {

namespace {

// One JSON object of the file: reads its members into settings, records every
// problem with the member's dotted name, and remembers which members it knew.
class Section {
public:
    Section(const Json::Value& object, std::string prefix, std::vector<ConfigProblem>& problems)
        : object_(object), prefix_(std::move(prefix)), problems_(problems) {}

    ~Section() {
        for (const std::string& name : object_.getMemberNames()) {
            if (known_.count(name) == 0) {
                problems_.push_back(ConfigProblem::Warning(prefix_ + name, "unknown key; ignored"));
            }
        }
    }

    void Int(const char* key, int min, int max, int& out) {
        const Json::Value* value = Find(key);
        if (value == nullptr) {
            return;
        }
        if (!value->isInt() || value->asInt() < min || value->asInt() > max) {
            Problem(key, "an integer from " + std::to_string(min) + " to " + std::to_string(max));
            return;
        }
        out = value->asInt();
    }

    void Size(const char* key, uint64_t max, uint64_t& out) {
        const Json::Value* value = Find(key);
        if (value == nullptr) {
            return;
        }
        if (!value->isUInt64() || value->asUInt64() > max) {
            Problem(key, "a byte count from 0 to " + std::to_string(max));
            return;
        }
        out = value->asUInt64();
    }

    void Bool(const char* key, bool& out) {
        const Json::Value* value = Find(key);
        if (value == nullptr) {
            return;
        }
        if (!value->isBool()) {
            Problem(key, "true or false");
            return;
        }
        out = value->asBool();
    }

    // `valid` null: any string.
    void String(const char* key, bool (*valid)(const std::string&), const char* expected, std::string& out) {
        const Json::Value* value = Find(key);
        if (value == nullptr) {
            return;
        }
        if (!value->isString() || (valid != nullptr && !valid(value->asString()))) {
            Problem(key, expected);
            return;
        }
        out = value->asString();
    }

    // The member `key` as an object; false (reported when present) otherwise.
    bool Object(const char* key, Json::Value& out) {
        const Json::Value* value = Find(key);
        if (value == nullptr) {
            return false;
        }
        if (!value->isObject()) {
            Problem(key, "an object");
            return false;
        }
        out = *value;
        return true;
    }

    // The member `key` as an array; false (reported when present) otherwise.
    bool Array(const char* key, Json::Value& out) {
        const Json::Value* value = Find(key);
        if (value == nullptr) {
            return false;
        }
        if (!value->isArray()) {
            Problem(key, "a list");
            return false;
        }
        out = *value;
        return true;
    }

    // An object of string values (numbers and booleans are taken as their text).
    void StringMap(const char* key, std::map<std::string, std::string>& out) {
        Json::Value object;
        if (!Object(key, object)) {
            return;
        }
        for (const std::string& name : object.getMemberNames()) {
            const Json::Value& value = object[name];
            if (value.isString()) {
                out[name] = value.asString();
            } else if (value.isBool()) {
                out[name] = value.asBool() ? "true" : "false";
            } else if (value.isIntegral()) {
                out[name] = std::to_string(value.asInt64());
            } else {
                problems_.push_back(
                    ConfigProblem::Warning(prefix_ + key + "." + name, "must be a string; ignored"));
            }
        }
    }

    const std::string& prefix() const { return prefix_; }
    std::vector<ConfigProblem>& problems() { return problems_; }
    void Report(const std::string& key, const std::string& what) {
        problems_.push_back(ConfigProblem::Warning(key, what));
    }

private:
    const Json::Value* Find(const char* key) {
        known_.insert(key);
        return object_.find(key, key + std::char_traits<char>::length(key));
    }

    void Problem(const char* key, const std::string& expected) {
        problems_.push_back(
            ConfigProblem::Warning(prefix_ + key, "must be " + expected + "; using its default"));
    }

    const Json::Value& object_;
    const std::string prefix_;
    std::vector<ConfigProblem>& problems_;
    std::set<std::string> known_;
};

bool IsLogLevel(const std::string& name) {
    try {
        Poco::Logger::parseLevel(name);
        return true;
    } catch (const Poco::Exception&) {
        return false;
    }
}

bool IsLogTarget(const std::string& name) {
    return name == "file" || name == "stderr" || name == "journal";
}

// Poco FileChannel size rotation: "<n>", "<n> K", "<n> M".
bool IsRotateSize(const std::string& text) {
    size_t digits = 0;
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits])) != 0) {
        ++digits;
    }
    if (digits == 0 || digits > 12) {
        return false;
    }
    std::string unit = text.substr(digits);
    if (!unit.empty() && unit[0] == ' ') {
        unit.erase(0, 1);
    }
    return unit.empty() || unit == "K" || unit == "M";
}

bool IsListenAddress(const std::string& text) {
    if (text.empty()) {
        return true;
    }
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon + 1 == text.size() || text.size() - colon > 6) {
        return false;
    }
    for (size_t index = colon + 1; index < text.size(); ++index) {
        if (std::isdigit(static_cast<unsigned char>(text[index])) == 0) {
            return false;
        }
    }
    return std::stoi(text.substr(colon + 1)) <= 65535;
}

void ParseLog(Section& section, SDK::LogSettings& log) {
    int keepFiles = log.keepFiles;
    section.String("level", IsLogLevel, "a log level (error, warning, notice, information, debug, trace)",
                   log.level);
    section.String("target", IsLogTarget, "\"file\", \"stderr\" or \"journal\"", log.target);
    section.String("directory", nullptr, "a path", log.directory);
    section.String("rotate_size", IsRotateSize, "a size such as \"10 M\", \"512 K\" or \"1048576\"",
                   log.rotateSize);
    section.Int("keep_files", 0, 1000, keepFiles);
    log.keepFiles = keepFiles;
}

bool IsSinkName(const std::string& name) {
    return !name.empty() && name.size() <= 64 && std::all_of(name.begin(), name.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-';
    });
}

// Room for one process entry with its strings cut, in an envelope, behind a syslog header.
constexpr uint64_t kMinMessageBytes = 4096;

bool IsWebhookFormat(const std::string& format) {
    return format == "lines" || format == "array";
}

// The keys of one sink's type; false (with the missing key named) when it cannot work.
bool ParseSinkOptions(Section& section, SinkSettings& sink, std::string& missing) {
    if (sink.type == "file") {
        section.String("path", nullptr, "a path", sink.path);
        section.Size("rotate_bytes", 1ull << 40, sink.rotateBytes);
        section.Int("keep_files", 0, 1000, sink.keepFiles);
        missing = sink.path.empty() ? "path" : "";
    } else if (sink.type == "syslog") {
        section.String("socket", nullptr, "a path", sink.socket);
        section.String("host", nullptr, "a host name or address", sink.host);
        section.Int("port", 1, 65535, sink.port);
        section.Bool("tls", sink.tls);
        section.String("ca_file", nullptr, "a path", sink.caFile);
        if (sink.socket.empty() && sink.host.empty()) {
            sink.socket = "/dev/log";
        }
        missing = (!sink.host.empty() && sink.port == 0) ? "port" : "";
    } else if (sink.type == "relp") {
        section.String("host", nullptr, "a host name or address", sink.host);
        section.Int("port", 1, 65535, sink.port);
        missing = sink.host.empty() ? "host" : sink.port == 0 ? "port" : "";
    } else if (sink.type == "webhook") {
        int batch = static_cast<int>(sink.batch);
        section.String("url", nullptr, "a URL", sink.url);
        section.String("format", IsWebhookFormat, "\"lines\" or \"array\"", sink.format);
        section.String("token_file", nullptr, "a path", sink.tokenFile);
        section.String("header_file", nullptr, "a path", sink.headerFile);
        section.Bool("verify", sink.verify);
        section.String("ca_file", nullptr, "a path", sink.caFile);
        section.Int("timeout_seconds", 1, 600, sink.timeoutSeconds);
        section.Int("batch", 1, 10000, batch);
        sink.batch = static_cast<size_t>(batch);
        missing = sink.url.empty() ? "url" : "";
    } else if (sink.type == "kafka") {
        section.String("brokers", nullptr, "a list of host:port", sink.brokers);
        section.String("topic", nullptr, "a topic name", sink.topic);
        section.String("key", nullptr, "a string", sink.key);
        section.StringMap("properties", sink.properties);
        missing = sink.brokers.empty() ? "brokers" : sink.topic.empty() ? "topic" : "";
    }
    return missing.empty();
}

void ParseSinks(const Json::Value& list, const std::string& prefix, std::vector<ConfigProblem>& problems,
                ReportSettings& alerts) {
    std::set<std::string> names = {alerts.toStdout ? "stdout" : "", alerts.filePath.empty() ? "" : "file"};
    for (Json::ArrayIndex index = 0; index < list.size(); ++index) {
        const std::string where = prefix + "[" + std::to_string(index) + "]";
        if (!list[index].isObject()) {
            problems.push_back(ConfigProblem::Warning(where, "must be an object; sink ignored"));
            continue;
        }
        Section section(list[index], where + ".", problems);
        SinkSettings sink;
        sink.origin = where;
        section.String("type", nullptr, "a sink type", sink.type);
        if (sink.type != "stdout" && sink.type != "file" && sink.type != "syslog" && sink.type != "relp" &&
            sink.type != "webhook" && sink.type != "kafka") {
            section.Report(
                where + ".type",
                "must be \"stdout\", \"file\", \"syslog\", \"relp\", \"webhook\" or \"kafka\"; sink ignored");
            continue;
        }
        section.String("name", IsSinkName, "letters, digits, '_' and '-' (at most 64)", sink.name);
        section.Bool("envelope", sink.envelope);
        section.Size("max_message_bytes", 1ull << 30, sink.maxMessageBytes);
        if (sink.maxMessageBytes > 0 && sink.maxMessageBytes < kMinMessageBytes) {
            section.Report(where + ".max_message_bytes", "below " + std::to_string(kMinMessageBytes) +
                                                             "; using " + std::to_string(kMinMessageBytes));
            sink.maxMessageBytes = kMinMessageBytes;
        }
        std::string missing;
        if (!ParseSinkOptions(section, sink, missing)) {
            section.Report(where, "a " + sink.type + " sink needs \"" + missing + "\"; sink ignored");
            continue;
        }
        if (sink.name.empty()) {
            sink.name = names.count(sink.type) == 0 ? sink.type : sink.type + "-" + std::to_string(index);
        }
        if (!names.insert(sink.name).second) {
            section.Report(where + ".name", "\"" + sink.name + "\" is taken by another sink; sink ignored");
            continue;
        }
        alerts.sinks.push_back(sink);
    }
}

void ParseAlerts(Section& section, ReportSettings& alerts) {
    section.Bool("stdout", alerts.toStdout);
    section.String("file", nullptr, "a path (\"\" for none)", alerts.filePath);
    section.Size("rotate_bytes", 1ull << 40, alerts.rotateBytes);
    section.Int("keep_files", 0, 1000, alerts.keepFiles);
    section.Int("retry_seconds", 1, 3600, alerts.retrySeconds);
    section.Int("retry_max_seconds", 1, 86400, alerts.retryMaxSeconds);
    section.Int("stop_drain_seconds", 0, 3600, alerts.stopDrainSeconds);
    Json::Value object;
    if (section.Object("spool", object)) {
        Section spool(object, section.prefix() + "spool.", section.problems());
        spool.String("directory", nullptr, "a path", alerts.spoolDir);
        spool.Size("max_bytes", 1ull << 40, alerts.spoolMaxBytes);
        if (alerts.spoolMaxBytes < (1u << 20)) {
            spool.Report(section.prefix() + "spool.max_bytes", "below 1 MiB; using 1 MiB");
            alerts.spoolMaxBytes = 1u << 20;
        }
    }
    if (section.Array("sinks", object)) {
        ParseSinks(object, section.prefix() + "sinks", section.problems(), alerts);
    }
}

void ParseCollect(Section& section, AgentSettings& settings) {
    section.Int("procs_refresh_seconds", 1, 3600, settings.procsRefreshSeconds);
    section.Int("net_refresh_seconds", 1, 3600, settings.netRefreshSeconds);
    section.Int("event_backlog_mib", 1, 1024, settings.eventBacklogMib);
}

}  // namespace

std::vector<ConfigProblem> AgentSettingsParser::Parse(const std::string& text, AgentSettings& settings) {
    std::vector<ConfigProblem> problems;
    Json::Value root;
    if (!ReadConfigJson(text, "using the default settings", root, problems)) {
        return problems;
    }
    {
        Section top(root, "", problems);
        Json::Value object;
        if (top.Object("log", object)) {
            Section log(object, "log.", problems);
            ParseLog(log, settings.log);
        }
        top.Int("cpu_share", 0, 100, settings.cpuShare);
        if (top.Object("alerts", object)) {
            Section alerts(object, "alerts.", problems);
            ParseAlerts(alerts, settings.alerts);
        }
        if (top.Object("collect", object)) {
            Section collect(object, "collect.", problems);
            ParseCollect(collect, settings);
        }
        if (top.Object("metrics", object)) {
            Section metrics(object, "metrics.", problems);
            metrics.String("listen", IsListenAddress,
                           "\"host:port\" such as \"127.0.0.1:9465\", or \"\" for off",
                           settings.metricsListen);
        }
    }
    return problems;
}

}  // namespace Agent
