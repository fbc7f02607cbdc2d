#include "AlertLine.h"

#include <json/json.h>

#include "sdk/JsonUtils.h"

namespace Agent {

bool AlertLine::FromBody(const std::string& body, std::string& line, std::string& error) {
    Json::Value document;
    error.clear();
    if (body.empty()) {
        error = "empty body";
        return false;
    }
    // Bounded: a body nested too deep is refused, not a crash of the report task.
    if (!SDK::JsonUtils::ParseBounded(body.data(), body.size(), document, error)) {
        return false;
    }
    // Sinks and their consumers (strict ingest APIs, json.loads) refuse text that is not
    // UTF-8: the one place every alert passes makes it so, the same way for every sink.
    line = SDK::JsonUtils::ToValidUtf8(
        body.find_first_of("\r\n") == std::string::npos ? body : SDK::JsonUtils::JsonToString(document));
    line.push_back('\n');
    return true;
}

}  // namespace Agent
