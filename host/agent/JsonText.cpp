#include "JsonText.h"

#include <memory>

#include "sdk/JsonUtils.h"

namespace Agent {

namespace {

std::string OneLine(std::string text) {
    for (char& c : text) {
        c = (c == '\n' || c == '\r') ? ' ' : c;
    }
    while (!text.empty() && text.back() == ' ') {
        text.pop_back();
    }
    return text;
}

}  // namespace

bool ParseStrictJson(const std::string& text, Json::Value& out, std::string& error) {
    // The bounded parse refuses deep nesting and oversized texts (which make jsoncpp
    // throw) before the strict one looks for duplicate keys and trailing commas.
    if (!SDK::JsonUtils::ParseBounded(text.data(), text.size(), out, error)) {
        return false;
    }
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["allowComments"] = false;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = true;
    builder["allowTrailingCommas"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (reader->parse(text.data(), text.data() + text.size(), &out, &error)) {
        return true;
    }
    error = OneLine(error);
    return false;
}

bool ReadConfigJson(const std::string& text, const std::string& ifRefused, Json::Value& out,
                    std::vector<ConfigProblem>& problems) {
    std::string error;
    if (!SDK::JsonUtils::ParseBounded(text.data(), text.size(), out, error)) {
        problems.push_back(
            ConfigProblem::Error("-", "not valid JSON (" + OneLine(error) + "); " + ifRefused));
        return false;
    }
    if (!out.isObject()) {
        problems.push_back(ConfigProblem::Error("-", "the top level must be a JSON object; " + ifRefused));
        return false;
    }
    Json::Value strict;
    if (!ParseStrictJson(text, strict, error)) {
        problems.push_back(ConfigProblem::Warning(
            "-", "not strict JSON (" + error +
                     "); it is read leniently: trailing commas and comments are skipped, and of duplicate "
                     "keys the last counts"));
    }
    return true;
}

}  // namespace Agent
