#pragma once

#include <string>

namespace Agent {

// Log lines of the report task, through the agent's logger; nothing is logged
// before the agent has set logging up.
class ReportLog {
public:
    static void Error(const std::string& text);
    static void Warning(const std::string& text);
    static void Information(const std::string& text);
};

}  // namespace Agent
