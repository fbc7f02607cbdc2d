#pragma once

#include <string>
#include <vector>

#include "ReportSettings.h"
#include "sdk/LoggerUtils.h"

namespace Agent {

// Everything conf/agent.json sets. Relative paths are relative to the prefix.
struct AgentSettings {
    AgentSettings() {
        alerts.filePath = "log/alerts.json";
        alerts.spoolDir = "var/spool";
    }

    SDK::LogSettings log;
    int cpuShare = 10;  // percent of one CPU per task thread; 0 turns the governor off
    ReportSettings alerts;
    int procsRefreshSeconds = 3;
    int netRefreshSeconds = 3;

    // Reads and parses `path` into `out`. Returns the problems found, each a
    // complete sentence naming the file; what could not be used keeps its default.
    static std::vector<std::string> LoadFile(const std::string& path, AgentSettings& out);
};

}  // namespace Agent
