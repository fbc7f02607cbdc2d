// agent.json.
#include <cstddef>
#include <cstdint>
#include <string>

#include "AgentSettings.h"
#include "AgentSettingsParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Agent::AgentSettings settings;
    Agent::AgentSettingsParser::Parse(std::string(reinterpret_cast<const char*>(data), size), settings);
    return 0;
}
