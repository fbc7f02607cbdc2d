#include "AlertLine.h"

#include <json/json.h>

#include <cstring>
#include <memory>

#include "AlertSplitter.h"
#include "sdk/HostLog.h"
#include "sdk/JsonUtils.h"

namespace Agent {

namespace {

constexpr size_t kTieRoom = 128;  // AlertSplitter::AddTie with an id of up to 64 bytes
constexpr size_t kMaxTiedId = 64;

}  // namespace

bool AlertLine::FromBody(const std::string& body, size_t maxLine, std::vector<std::string>& lines,
                         std::string& error) {
    lines.clear();
    error.clear();
    if (body.empty()) {
        error = "empty body";
        return false;
    }
    // Sinks and their consumers (strict ingest APIs, json.loads) refuse text that is not
    // UTF-8: the one place every alert passes makes it so, the same way for every sink.
    std::string line;
    if (body.size() <= maxLine) {
        Json::Value document;
        // Bounded: a body nested too deep is refused, not a crash of the report task.
        if (!SDK::JsonUtils::ParseBounded(body.data(), body.size(), document, error)) {
            return false;
        }
        line = SDK::JsonUtils::ToValidUtf8(
            body.find_first_of("\r\n") == std::string::npos ? body : SDK::JsonUtils::JsonToString(document));
    } else {
        // Too long to parse whole within bounds: each part is parsed below.
        line = SDK::JsonUtils::ToValidUtf8(body);
    }
    line.push_back('\n');
    if (line.size() <= maxLine) {
        lines.push_back(std::move(line));
        return true;
    }
    AlertSplitter::Result result;
    const auto measure = [](const std::string& part) { return part.size(); };
    if (!AlertSplitter::Split(line, maxLine - kTieRoom, measure, result, error)) {
        error = "longer than " + std::to_string(maxLine) + " bytes and " + error;
        return false;
    }
    const AlertSplitter::Tie tie{result.eventId.size() <= kMaxTiedId ? result.eventId : "", result.entries};
    for (const std::string& part : result.parts) {
        Json::Value document;
        if (!SDK::JsonUtils::ParseBounded(part.data(), part.size(), document, error)) {
            lines.clear();
            return false;
        }
        lines.push_back(tie.of.empty() ? part : AlertSplitter::AddTie(part, tie));
    }
    if (result.left > 0 || result.cut > 0) {
        HOST_LOG_ERROR("alert " + result.eventId + ": " + std::to_string(result.cut) +
                       " process entries longer than the spool takes had their longest strings cut and " +
                       std::to_string(result.left) + " were left out");
    }
    if (lines.empty()) {
        error = "longer than " + std::to_string(maxLine) + " bytes and no entry fits";
        return false;
    }
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
