#pragma once

#include <string>
#include <utility>
#include <vector>

#include "report/ReportSettings.h"

namespace Agent {

// One thing in the alert settings that keeps alerts from a sink: the dotted agent.json
// key ("alerts.sinks[2].ca_file") and what is wrong, with what the agent does about it.
struct ReportProblem {
    std::string key;
    std::string what;
};

// Every sink's resources as the report task checks them when it starts (files exist and
// parse, sockets exist, URL schemes, librdkafka's judgement of each property, the
// directories of alert files), and the spool's place. `settings` holds absolute paths.
// Connects to nothing and never blocks.
std::vector<ReportProblem> CheckSinks(const ReportSettings& settings);

// The files and directories the report task writes, each with the key that sets it:
// alert files, file sinks, the spool (which also holds the dead-letter files).
std::vector<std::pair<std::string, std::string>> WrittenPaths(const ReportSettings& settings);

}  // namespace Agent
