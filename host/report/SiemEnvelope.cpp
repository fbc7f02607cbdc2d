#include "SiemEnvelope.h"

#include <json/json.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <memory>
#include <utility>

#include "sdk/JsonUtils.h"
#include "sdk/ProcessUtils.h"

namespace Agent {

namespace {

// The detector flag bits of a "rule" value, by name.
const struct {
    unsigned int bit;
    const char* name;
} kFlags[] = {
    {0x001, "PROC_TMP"},     {0x002, "PROC_HIDDEN"}, {0x004, "PROC_DELETED"},
    {0x008, "LOGIN_OTHERS"}, {0x010, "CONNECT_BIP"}, {0x020, "HIGHCPU"},
    {0x040, "STRINGS"},      {0x080, "CMDLINE"},     {0x100, "PACKER"},
};

std::string Iso8601(std::time_t seconds) {
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

Json::Value FlagNames(const Json::Value& alert) {
    Json::Value processes(Json::arrayValue);
    const Json::Value& list = alert["process_info"];
    if (!list.isArray()) {
        return processes;
    }
    for (const Json::Value& process : list) {
        if (!process.isObject() || !process["rule"].isIntegral()) {
            continue;
        }
        const unsigned int rule = process["rule"].asUInt();
        Json::Value entry;
        entry["process_pid"] = process["process_pid"];
        entry["names"] = Json::Value(Json::arrayValue);
        for (const auto& flag : kFlags) {
            if ((rule & flag.bit) != 0) {
                entry["names"].append(flag.name);
            }
        }
        processes.append(entry);
    }
    return processes;
}

// Where each reported process runs, read when the alert is wrapped: only for a pid
// that still runs the program the alert names (a pid reused since is left out).
Json::Value ProcessContexts(const Json::Value& alert) {
    Json::Value contexts(Json::arrayValue);
    const Json::Value& list = alert["process_info"];
    if (!list.isArray()) {
        return contexts;
    }
    for (const Json::Value& process : list) {
        if (!process.isObject() || !process["process_pid"].isIntegral() ||
            !process["process_path"].isString()) {
            continue;
        }
        const int pid = process["process_pid"].asInt();
        const std::string reported = process["process_path"].asString();
        std::string running;
        // A deleted program is reported as its /proc/PID/exe link; its target then ends in " (deleted)".
        const bool throughLink = reported == "/proc/" + std::to_string(pid) + "/exe";
        SDK::ProcessUtils::ProcessContext context;
        if (pid <= 0 || SDK::ProcessUtils::GetProcessExePath(static_cast<unsigned int>(pid), running) != 0 ||
            (throughLink ? running.size() < 10 || running.compare(running.size() - 10, 10, " (deleted)") != 0
                         : running != reported) ||
            SDK::ProcessUtils::GetProcessContext(pid, context) != 0) {
            continue;
        }
        Json::Value entry;
        entry["process_pid"] = pid;
        if (!context.containerRuntime.empty()) {
            entry["container"]["runtime"] = context.containerRuntime;
            entry["container"]["id"] = context.containerId;
        }
        entry["namespaces"]["pid"] = static_cast<Json::UInt64>(context.pidNamespace);
        entry["namespaces"]["mnt"] = static_cast<Json::UInt64>(context.mountNamespace);
        entry["host_namespaces"] = context.hostNamespaces;
        SDK::ProcessUtils::procStatus status;
        std::string user;
        if (SDK::ProcessUtils::GetProcessStatusInfo(pid, status) == 0 &&
            SDK::ProcessUtils::GetProcessUser(status.uid, user) == 0) {
            entry["user"]["id"] = status.uid;
            entry["user"]["name"] = user;
        }
        contexts.append(entry);
    }
    return contexts;
}

}  // namespace

SiemEnvelope::SiemEnvelope(std::string hostName, std::string hostId, std::string agentVersion)
    : hostName_(std::move(hostName)), hostId_(std::move(hostId)), agentVersion_(std::move(agentVersion)) {}

std::string SiemEnvelope::Wrap(const std::string& line, const AlertSplitter::Tie* tie) const {
    std::string body = line;
    while (!body.empty() && body.back() == '\n') {
        body.pop_back();
    }
    Json::Value alert;
    std::string error;
    if (!SDK::JsonUtils::ParseBounded(body.data(), body.size(), alert, error) || !alert.isObject()) {
        alert = Json::Value(Json::objectValue);
    }
    Json::Value head;
    const Json::Value& occurred = alert["occur_time"];
    head["@timestamp"] =
        Iso8601(occurred.isIntegral() ? static_cast<std::time_t>(occurred.asInt64()) : std::time(nullptr));
    head["host"]["name"] = hostName_;
    head["host"]["id"] = hostId_;
    head["agent"]["name"] = "corvane-agent";
    head["agent"]["version"] = agentVersion_;
    head["event"]["kind"] = "alert";
    head["event"]["code"] = alert["event_classid"].isString() ? alert["event_classid"].asString() : "";
    head["corvane_flags"] = FlagNames(alert);
    head["corvane_context"] = ProcessContexts(alert);
    if (tie != nullptr) {
        head["corvane_split"]["of"] = tie->of;
        head["corvane_split"]["processes"] = static_cast<Json::UInt64>(tie->processes);
    }
    // The alert goes in as the module wrote it, byte for byte, not re-serialised.
    // The host name is any bytes root gave it.
    std::string text = SDK::JsonUtils::ToValidUtf8(SDK::JsonUtils::JsonToString(head));
    text.pop_back();  // the closing brace
    text += ",\"corvane\":" + body + "}\n";
    return text;
}

std::string SiemEnvelope::HostName() {
    char name[256] = {};
    return ::gethostname(name, sizeof(name) - 1) == 0 ? std::string(name) : std::string();
}

std::string SiemEnvelope::MachineId() {
    std::ifstream in("/etc/machine-id");
    std::string id;
    std::getline(in, id);  // 32 hex digits; a longer line is cut below
    return id.substr(0, 64);
}

}  // namespace Agent
