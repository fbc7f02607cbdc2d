#include "sdk/JsonUtils.h"

#include <exception>
#include <memory>

namespace SDK {

namespace {

// The member `key` of `object`, or null when `object` is no object or lacks it.
// jsoncpp asserts (throws) on member access to arrays and scalars, hence the type check.
const Json::Value* FindMember(const Json::Value& object, const char* key) {
    if (key == nullptr || !object.isObject()) {
        return nullptr;
    }
    return object.find(key, key + std::char_traits<char>::length(key));
}

}  // namespace

bool JsonUtils::ParseBounded(const char* text, size_t length, Json::Value& out, std::string& error) {
    error.clear();
    if (text == nullptr) {
        error = "no text";
        return false;
    }
    if (length > kMaxTextBytes) {
        error = "larger than " + std::to_string(kMaxTextBytes) + " bytes";
        return false;
    }
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["failIfExtra"] = true;  // "{} trailing junk" is a broken policy, not an empty one
    builder["stackLimit"] = kMaxDepth;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value parsed;
    try {
        if (!reader->parse(text, text + length, &parsed, &error)) {
            for (char& c : error) {
                c = (c == '\n' || c == '\r') ? ' ' : c;
            }
            return false;
        }
    } catch (const Json::Exception& failure) {
        // jsoncpp throws, rather than reports, nesting beyond stackLimit.
        error = failure.what();
        return false;
    }
    out.swap(parsed);
    return true;
}

int JsonUtils::ParseJsonStr(const char* text, unsigned long length, Json::Value& out) {
    std::string error;
    return ParseBounded(text, length, out, error) ? 0 : -1;
}

bool JsonUtils::GetBoolValue(const Json::Value& object, const char* key, bool defaultValue) {
    const Json::Value* member = FindMember(object, key);
    return member != nullptr && member->isBool() ? member->asBool() : defaultValue;
}

int JsonUtils::GetIntValue(const Json::Value& object, const char* key, int defaultValue) {
    const Json::Value* member = FindMember(object, key);
    // isInt() is false for values out of int range, so asInt() cannot throw here.
    return member != nullptr && member->isInt() ? member->asInt() : defaultValue;
}

std::string JsonUtils::GetStringValue(const Json::Value& object, const char* key, const char* defaultValue) {
    const Json::Value* member = FindMember(object, key);
    if (member != nullptr && member->isString()) {
        return member->asString();
    }
    return defaultValue != nullptr ? std::string(defaultValue) : std::string();
}

bool JsonUtils::GetSubobjectValue(const Json::Value& object, const char* key, Json::Value& out) {
    const Json::Value* member = FindMember(object, key);
    if (member == nullptr || !member->isObject()) {
        return false;
    }
    out = *member;
    return true;
}

bool JsonUtils::GetArrayValue(const Json::Value& object, const char* key, Json::Value& out) {
    const Json::Value* member = FindMember(object, key);
    if (member == nullptr || !member->isArray()) {
        return false;
    }
    out = *member;
    return true;
}

std::string JsonUtils::JsonToString(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["commentStyle"] = "None";
    builder["emitUTF8"] = true;
    try {
        return Json::writeString(builder, value);
    } catch (const std::exception&) {
        return std::string();
    }
}

}  // namespace SDK
