#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "ConfigProblem.h"

namespace Agent {

// Parses a JSON text strictly (no trailing data, no duplicate keys, no trailing commas);
// false with jsoncpp's reason on one line. For the files the agent itself owns (schemas).
bool ParseStrictJson(const std::string& text, Json::Value& out, std::string& error);

// Reads a configuration text (agent.json, a policy) as the agent and the modules read it:
// bounded in size and nesting (SDK::JsonUtils::ParseBounded) and lenient (trailing commas,
// comments, the last of duplicate keys wins). Returns false, with an error ending in
// `ifRefused`, when the text is not JSON or its top level is not an object; a text that
// only the lenient reading takes gets a warning.
bool ReadConfigJson(const std::string& text, const std::string& ifRefused, Json::Value& out,
                    std::vector<ConfigProblem>& problems);

}  // namespace Agent
