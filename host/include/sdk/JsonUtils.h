#pragma once

#include <json/json.h>

#include <string>

namespace SDK {

// jsoncpp helpers that never throw: a missing member or one of the wrong type
// gives the default (or false).
class JsonUtils {
public:
    // Parses `length` bytes of `text`. 0 on success, -1 on a syntax error or null text.
    static int ParseJsonStr(const char* text, unsigned long length, Json::Value& out);
    static bool GetBoolValue(const Json::Value& object, const char* key, bool defaultValue);
    static int GetIntValue(const Json::Value& object, const char* key, int defaultValue);
    static std::string GetStringValue(const Json::Value& object, const char* key, const char* defaultValue);
    // True, and `out` set, when `key` holds an object.
    static bool GetSubobjectValue(const Json::Value& object, const char* key, Json::Value& out);
    // True, and `out` set, when `key` holds an array.
    static bool GetArrayValue(const Json::Value& object, const char* key, Json::Value& out);
    // Compact one-line JSON, no trailing newline.
    static std::string JsonToString(const Json::Value& value);
};

}  // namespace SDK
