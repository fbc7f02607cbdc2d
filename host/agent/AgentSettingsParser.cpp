#include "AgentSettingsParser.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <json/json.h>

#include <cctype>
#include <initializer_list>
#include <set>
#include <string>
#include <utility>

#include "sdk/JsonUtils.h"

namespace Agent {

namespace {

// One JSON object of the file: reads its members into settings, records every
// problem with the member's dotted name, and remembers which members it knew.
class Section {
public:
    Section(const Json::Value& object, std::string prefix, std::vector<std::string>& problems)
        : object_(object), prefix_(std::move(prefix)), problems_(problems) {}

    ~Section() {
        for (const std::string& name : object_.getMemberNames()) {
            if (known_.count(name) == 0) {
                problems_.push_back("unknown key \"" + prefix_ + name + "\" ignored");
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

    const std::string& prefix() const { return prefix_; }

private:
    const Json::Value* Find(const char* key) {
        known_.insert(key);
        return object_.find(key, key + std::char_traits<char>::length(key));
    }

    void Problem(const char* key, const std::string& expected) {
        problems_.push_back("\"" + prefix_ + key + "\" must be " + expected + "; using its default");
    }

    const Json::Value& object_;
    const std::string prefix_;
    std::vector<std::string>& problems_;
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
    return name == "file" || name == "stderr";
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

void ParseLog(Section& section, SDK::LogSettings& log) {
    int keepFiles = log.keepFiles;
    section.String("level", IsLogLevel, "a log level (error, warning, notice, information, debug, trace)",
                   log.level);
    section.String("target", IsLogTarget, "\"file\" or \"stderr\"", log.target);
    section.String("directory", nullptr, "a path", log.directory);
    section.String("rotate_size", IsRotateSize, "a size such as \"10 M\", \"512 K\" or \"1048576\"",
                   log.rotateSize);
    section.Int("keep_files", 0, 1000, keepFiles);
    log.keepFiles = keepFiles;
}

void ParseAlerts(Section& section, ReportSettings& alerts) {
    uint64_t backlog = alerts.backlogBytes;
    section.Bool("stdout", alerts.toStdout);
    section.String("file", nullptr, "a path (\"\" for none)", alerts.filePath);
    section.Size("rotate_bytes", 1ull << 40, alerts.rotateBytes);
    section.Int("keep_files", 0, 1000, alerts.keepFiles);
    section.Size("backlog_bytes", 1ull << 32, backlog);
    section.Int("retry_seconds", 1, 3600, alerts.retrySeconds);
    alerts.backlogBytes = static_cast<size_t>(backlog);
}

void ParseCollect(Section& section, AgentSettings& settings) {
    section.Int("procs_refresh_seconds", 1, 3600, settings.procsRefreshSeconds);
    section.Int("net_refresh_seconds", 1, 3600, settings.netRefreshSeconds);
}

}  // namespace

std::vector<std::string> AgentSettingsParser::Parse(const std::string& text, AgentSettings& settings) {
    std::vector<std::string> problems;
    Json::Value root;
    std::string error;
    if (!SDK::JsonUtils::ParseBounded(text.data(), text.size(), root, error)) {
        problems.push_back("not valid JSON (" + error + "); using the default settings");
        return problems;
    }
    if (!root.isObject()) {
        problems.push_back("not a JSON object; using the default settings");
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
    }
    return problems;
}

}  // namespace Agent
