#pragma once

#include <string>
#include <vector>

#include "AgentSettings.h"
#include "ConfigProblem.h"

namespace Agent {

// agent.json text to settings. Keys that are missing keep their defaults; a key
// of the wrong type or out of range keeps its default and is reported; unknown
// keys are reported and ignored (warnings). Text that is not a JSON object changes
// nothing (an error: the file is not used).
class AgentSettingsParser {
public:
    // Returns the problems (empty: all good).
    static std::vector<ConfigProblem> Parse(const std::string& text, AgentSettings& settings);
};

}  // namespace Agent
