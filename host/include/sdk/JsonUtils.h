#pragma once

#include <json/json.h>

#include <string>

namespace SDK {

// jsoncpp helpers that never throw: a missing member or one of the wrong type
// gives the default (or false).
class JsonUtils {
public:
    // Deepest nesting of arrays and objects accepted in a parsed text. Policies and settings
    // nest a handful of levels; the bound keeps jsoncpp's recursive reader (and every later
    // recursive walk of the value) far from the end of a task thread's stack.
    static constexpr unsigned kMaxDepth = 256;
    // Largest text accepted, checked before parsing.
    static constexpr size_t kMaxTextBytes = 16 * 1024 * 1024;

    // Parses `length` bytes of `text`. 0 on success, -1 on a syntax error, too deep a
    // nesting, too long a text or null text.
    static int ParseJsonStr(const char* text, unsigned long length, Json::Value& out);
    // The same, with jsoncpp's account of what is wrong, on one line, in `error`.
    static bool ParseBounded(const char* text, size_t length, Json::Value& out, std::string& error);
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
