#pragma once

#include <string>
#include <vector>

namespace Agent {

// What the command line asks for; empty strings mean "not given".
struct AgentOptions {
    std::string prefix;
    std::string config;
    std::string policyDir;
    std::vector<std::string> modules;
    std::string alerts;  // "-": standard output only
    std::string logLevel;
    bool help = false;
    bool version = false;
    bool check = false;   // check the settings and policies, start nothing
    bool strict = false;  // with check: warnings fail the check too
    std::string unit;     // with check: the systemd unit whose writable paths apply
    bool once = false;    // run each plug-in task's check once, then exit
};

// Parses the agent's options (GNU style: "--name value" or "--name=value").
class CommandLine {
public:
    // `args` without the program name. False with a one-line reason on a usage error.
    static bool Parse(const std::vector<std::string>& args, AgentOptions& options, std::string& error);
    static std::string Usage();
};

}  // namespace Agent
