#include "AlertLine.h"

#include <json/json.h>

#include <memory>

#include "sdk/JsonUtils.h"

namespace Agent {

bool AlertLine::FromBody(const std::string& body, std::string& line, std::string& error) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value document;
    error.clear();
    if (body.empty()) {
        error = "empty body";
        return false;
    }
    if (!reader->parse(body.data(), body.data() + body.size(), &document, &error)) {
        // jsoncpp's message spans lines; a log line must not.
        for (char& c : error) {
            if (c == '\n' || c == '\r') {
                c = ' ';
            }
        }
        return false;
    }
    if (body.find_first_of("\r\n") == std::string::npos) {
        line = body;
    } else {
        line = SDK::JsonUtils::JsonToString(document);
    }
    line.push_back('\n');
    return true;
}

}  // namespace Agent
