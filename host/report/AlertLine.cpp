#include "AlertLine.h"

#include <json/json.h>

#include <cstring>
#include <memory>

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
    if (body.find_first_of("\r\n") == std::string::npos) {
        line = body;
    } else {
        line = SDK::JsonUtils::JsonToString(document);
    }
    line.push_back('\n');
    return true;
}

bool AlertLine::IsDocument(const char* text, size_t size) {
    // One reader per thread: the sinks check what they read back on threads of their own.
    static thread_local const std::unique_ptr<Json::CharReader> reader([] {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        builder["failIfExtra"] = true;
        builder["stackLimit"] = SDK::JsonUtils::kMaxDepth;  // as FromBody parses
        return builder.newCharReader();
    }());
    if (size == 0 || std::memchr(text, '\n', size) != nullptr) {
        return false;
    }
    Json::Value ignored;
    std::string error;
    try {
        return reader->parse(text, text + size, &ignored, &error);
    } catch (const Json::Exception&) {
        return false;  // nested deeper than stackLimit
    }
}

}  // namespace Agent
