#pragma once

#include <string>

#include "CommandLine.h"

namespace Agent {

// Where the agent finds its files. Every directory ends in "/".
struct AgentPaths {
    static constexpr const char* kDefaultPrefix = "/usr/local/corvane/";

    std::string prefix;
    std::string config;
    std::string policyDir;
    std::string moduleDir;

    // From the options, the path of the running executable and the working
    // directory (relative paths on the command line are taken from there).
    static AgentPaths Resolve(const AgentOptions& options, const std::string& executable,
                              const std::string& cwd);
    // "<dir>/" when the executable lies in <dir>/bin/, else empty.
    static std::string PrefixOfExecutable(const std::string& executable);
    // `path` as is when absolute, else under `base` (which ends in "/").
    static std::string Under(const std::string& base, const std::string& path);
};

}  // namespace Agent
