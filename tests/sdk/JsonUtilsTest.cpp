#include <gtest/gtest.h>

#include <map>

#include "sdk/JsonUtils.h"

namespace {

using SDK::JsonUtils;

int Parse(const std::string& text, Json::Value& out) {
    return JsonUtils::ParseJsonStr(text.data(), text.size(), out);
}

TEST(JsonUtils, ParseAcceptsDocumentsAndRejectsBrokenText) {
    Json::Value value;
    ASSERT_EQ(Parse(R"({"enabled": true, "content": {"n": 3}})", value), 0);
    EXPECT_TRUE(value["enabled"].asBool());
    EXPECT_EQ(Parse("{\"a\": 1}\n", value), 0) << "a policy file ends in a newline";

    // Only `length` bytes count: the rest of the buffer is not part of the text.
    const char* text = R"({"a":1}garbage)";
    EXPECT_EQ(JsonUtils::ParseJsonStr(text, 7, value), 0);
    EXPECT_EQ(value["a"].asInt(), 1);

    value = Json::Value("kept");
    for (const std::string& broken :
         {std::string(R"({"a":1)"), std::string(R"({"a":1} trailing)"), std::string(""),
          std::string("{'a':1}"), std::string(5000, '[') + std::string(5000, ']')}) {
        EXPECT_EQ(Parse(broken, value), -1) << broken.substr(0, 20);
    }
    EXPECT_EQ(value.asString(), "kept") << "a failed parse leaves the output alone";
    EXPECT_EQ(JsonUtils::ParseJsonStr(nullptr, 10, value), -1);
}

// Policies are outside input: a mistyped or out-of-range member, or a lookup on
// a non-object (where jsoncpp itself would throw), gives the caller's default.
TEST(JsonUtils, GettersGiveTheDefaultForMissingOrMistypedMembers) {
    Json::Value doc;
    ASSERT_EQ(Parse(R"({"flag": true, "num": -42, "big": 3000000000, "real": 2.5, "whole": 7.0,
                       "str": "text", "obj": {"k": 1}, "arr": [1, 2], "nul": null})",
                    doc),
              0);
    const std::map<std::string, int> ints = {{"num", -42}, {"big", 9}, {"real", 9},   {"whole", 7},
                                             {"str", 9},   {"nul", 9}, {"missing", 9}};
    for (const auto& [key, expected] : ints) {
        EXPECT_EQ(JsonUtils::GetIntValue(doc, key.c_str(), 9), expected) << key;
    }
    EXPECT_TRUE(JsonUtils::GetBoolValue(doc, "num", true)) << "a number is not a bool";
    EXPECT_EQ(JsonUtils::GetStringValue(doc, "num", "d"), "d");
    EXPECT_EQ(JsonUtils::GetStringValue(doc, "missing", nullptr), "");
    Json::Value out(5);
    EXPECT_FALSE(JsonUtils::GetSubobjectValue(doc, "arr", out));
    EXPECT_FALSE(JsonUtils::GetArrayValue(doc, "obj", out));
    for (const Json::Value& notObject : {doc["arr"], doc["str"], Json::Value()}) {
        EXPECT_EQ(JsonUtils::GetIntValue(notObject, "k", 3), 3);
        EXPECT_FALSE(JsonUtils::GetArrayValue(notObject, "k", out));
    }
    EXPECT_EQ(JsonUtils::GetIntValue(doc, nullptr, 4), 4);
}

}  // namespace

// Alert text from process names and command lines is any bytes: every line must come out
// valid UTF-8 JSON, with each byte that was not UTF-8 recoverable from its \u00XX escape.
TEST(JsonUtils, ToValidUtf8EscapesEachInvalidByteReversibly) {
    const struct {
        const char* what;
        std::string in;
        std::string out;
    } cases[] = {
        {"valid text stays", "{\"p\":\"/tmp/\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80 \\\"\\\\\"}",
         "{\"p\":\"/tmp/\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80 \\\"\\\\\"}"},
        {"invalid bytes", "{\"p\":\"bad\xff\xfe\"}", "{\"p\":\"bad\\u00ff\\u00fe\"}"},
        {"stray continuation", "{\"p\":\"a\x80z\"}", "{\"p\":\"a\\u0080z\"}"},
        {"cut sequence", "{\"p\":\"\xe2\x82\"}", "{\"p\":\"\\u00e2\\u0082\"}"},
        {"overlong slash", "{\"p\":\"\xc0\xaf\xe0\x80\xaf\"}",
         "{\"p\":\"\\u00c0\\u00af\\u00e0\\u0080\\u00af\"}"},
        {"encoded surrogate", "{\"p\":\"\xed\xa0\x80\"}", "{\"p\":\"\\u00ed\\u00a0\\u0080\"}"},
        {"past U+10FFFF", "{\"p\":\"\xf4\x90\x80\x80\"}", "{\"p\":\"\\u00f4\\u0090\\u0080\\u0080\"}"},
        {"raw NUL and controls", std::string("{\"p\":\"a\0b\x01\t\"}", 13),
         "{\"p\":\"a\\u0000b\\u0001\\u0009\"}"},
        {"latin-1 escape becomes UTF-8", "{\"p\":\"\\u00e9\\u00FF\"}", "{\"p\":\"\xc3\xa9\xc3\xbf\"}"},
        {"surrogate escapes", "{\"p\":\"\\ud83d\\ude00 \\udc00 \\ud800x\"}",
         "{\"p\":\"\\ud83d\\ude00 \\ufffd \\ufffdx\"}"},
        {"line breaks between tokens", "{\n\"p\":\r\n1}", "{ \"p\":  1}"},
    };
    for (const auto& test : cases) {
        size_t escaped = 0;
        const std::string out = JsonUtils::ToValidUtf8(test.in, &escaped);
        EXPECT_EQ(out, test.out) << test.what;
        Json::Value value;
        EXPECT_EQ(Parse(out, value), 0) << test.what;
    }
    size_t escaped = 0;
    JsonUtils::ToValidUtf8("{\"p\":\"\xc0\xaf\",\"q\":\"\xc3\xa9\"}", &escaped);
    EXPECT_EQ(escaped, 2u);
}
