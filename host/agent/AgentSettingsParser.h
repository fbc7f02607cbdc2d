#pragma once

#include <string>
#include <vector>

#include "AgentSettings.h"

namespace Agent {

// agent.json text to settings. Keys that are missing keep their defaults; a key
// of the wrong type or out of range keeps its default and is reported; unknown
// keys are reported and ignored. Text that is not a JSON object changes nothing.
class AgentSettingsParser {
public:
    // Returns the problems, one short phrase each (empty: all good).
    static std::vector<std::string> Parse(const std::string& text, AgentSettings& settings);
};

}  // namespace Agent
