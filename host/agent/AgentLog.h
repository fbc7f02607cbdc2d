#pragma once

#include <string>

namespace Agent {

// The agent's own log lines. Errors also go to standard error while the log
// itself goes to a file, so that whoever starts the agent (a shell, systemd's
// journal) sees why it misbehaves; before logging is set up, stderr is all there is.
class AgentLog {
public:
    static void SetEchoErrors(bool echo);

    static void Error(const std::string& text);
    static void Warning(const std::string& text);
    static void Information(const std::string& text);
};

}  // namespace Agent
