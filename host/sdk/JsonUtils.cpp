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

// Length of the valid UTF-8 sequence of more than one byte at `at`, or 0 (RFC 3629 table 2).
size_t Utf8SequenceLength(const std::string& text, size_t at) {
    const auto byte = [&](size_t index) {
        return index < text.size() ? static_cast<unsigned char>(text[index]) : 0u;
    };
    const unsigned lead = byte(at);
    size_t length = 0;
    unsigned low = 0x80;
    unsigned high = 0xbf;
    if (lead >= 0xc2 && lead <= 0xdf) {
        length = 2;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3;
        low = lead == 0xe0 ? 0xa0 : 0x80;   // no overlong forms
        high = lead == 0xed ? 0x9f : 0xbf;  // no surrogates
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4;
        low = lead == 0xf0 ? 0x90 : 0x80;
        high = lead == 0xf4 ? 0x8f : 0xbf;  // nothing past U+10FFFF
    } else {
        return 0;
    }
    if (byte(at + 1) < low || byte(at + 1) > high) {
        return 0;
    }
    for (size_t index = 2; index < length; ++index) {
        if (byte(at + index) < 0x80 || byte(at + index) > 0xbf) {
            return 0;
        }
    }
    return length;
}

// The 16-bit value of the four hex digits at `at`, or -1.
long HexQuad(const std::string& text, size_t at) {
    if (at + 4 > text.size()) {
        return -1;
    }
    long value = 0;
    for (size_t index = at; index < at + 4; ++index) {
        const char c = text[index];
        const int digit = c >= '0' && c <= '9'   ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                 : -1;
        if (digit < 0) {
            return -1;
        }
        value = value * 16 + digit;
    }
    return value;
}

void AppendByteEscape(std::string& out, unsigned char byte) {
    static const char kHex[] = "0123456789abcdef";
    out += "\\u00";
    out.push_back(kHex[byte >> 4]);
    out.push_back(kHex[byte & 0xf]);
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

std::string JsonUtils::ToValidUtf8(const std::string& json, size_t* escaped) {
    std::string out;
    out.reserve(json.size());
    size_t count = 0;
    bool inString = false;
    for (size_t at = 0; at < json.size();) {
        const auto c = static_cast<unsigned char>(json[at]);
        if (!inString) {
            inString = c == '"';
            out.push_back(c == '\n' || c == '\r' ? ' ' : json[at]);
            ++at;
        } else if (c == '"') {
            inString = false;
            out.push_back('"');
            ++at;
        } else if (c == '\\' && at + 1 < json.size() && json[at + 1] == 'u') {
            const long unit = HexQuad(json, at + 2);
            const long next =
                at + 8 <= json.size() && json.compare(at + 6, 2, "\\u") == 0 ? HexQuad(json, at + 8) : -1;
            if (unit >= 0x80 && unit <= 0xff) {
                out.push_back(static_cast<char>(0xc0 | (unit >> 6)));
                out.push_back(static_cast<char>(0x80 | (unit & 0x3f)));
                at += 6;
            } else if (unit >= 0xd800 && unit <= 0xdbff && next >= 0xdc00 && next <= 0xdfff) {
                out.append(json, at, 12);
                at += 12;
            } else if (unit >= 0xd800 && unit <= 0xdfff) {
                out += "\\ufffd";
                at += 6;
            } else {
                out.append(json, at, 2);
                at += 2;
            }
        } else if (c == '\\') {
            out.append(json, at, 2);
            at += 2;
        } else if (c < 0x20) {
            AppendByteEscape(out, c);
            ++count;
            ++at;
        } else if (c < 0x80) {
            out.push_back(json[at]);
            ++at;
        } else if (const size_t length = Utf8SequenceLength(json, at)) {
            out.append(json, at, length);
            at += length;
        } else {
            AppendByteEscape(out, c);
            ++count;
            ++at;
        }
    }
    if (escaped != nullptr) {
        *escaped = count;
    }
    return out;
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
