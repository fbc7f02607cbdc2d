#pragma once

#include <string>
#include <vector>

#include "ConfigProblem.h"
#include "report/ReportSettings.h"
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
    int eventBacklogMib = 64;   // process events held back for each slow subscriber
    std::string metricsListen;  // "host:port" of the Prometheus endpoint; empty: off

    // Reads and parses `path` into `out`. Returns the problems found (a missing file is
    // a warning: the defaults apply); what could not be used keeps its default.
    static std::vector<ConfigProblem> LoadFile(const std::string& path, AgentSettings& out);

    // Makes the paths the file may give relative (log directory, alert files, spool,
    // the sinks' files and sockets) absolute under `prefix`, which ends in "/".
    void ResolvePaths(const std::string& prefix);
};

}  // namespace Agent
