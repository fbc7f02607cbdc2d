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
    // Valid JSON text `json` made valid UTF-8 on one line, reversibly: inside strings each byte
    // that is not part of a valid UTF-8 sequence (a stray or missing continuation byte, an
    // overlong form, an encoded surrogate, a code point past U+10FFFF) and each raw control byte
    // becomes \u00XX with the byte's value, and an escape \u0080..\u00ff already in the text
    // becomes the character's UTF-8 bytes, so that in the result such an escape always stands
    // for one original byte. A lone surrogate escape, which no UTF-8 text can hold, becomes
    // \ufffd. Line breaks between tokens become spaces. `escaped` counts the bytes escaped.
    static std::string ToValidUtf8(const std::string& json, size_t* escaped = nullptr);
};

}  // namespace SDK
