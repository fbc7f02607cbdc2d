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

TEST(JsonUtils, JsonToStringIsOneCompactLineThatParsesBack) {
    Json::Value value;
    value["name"] = "a \"quoted\"\nline";
    value["list"].append(1);
    value["list"].append(Json::Value(Json::objectValue));
    value["big"] = Json::Int64(1700000000123LL);
    const std::string text = JsonUtils::JsonToString(value);
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(text.find(": "), std::string::npos);
    Json::Value back;
    ASSERT_EQ(Parse(text, back), 0);
    EXPECT_EQ(back, value);
    EXPECT_EQ(JsonUtils::JsonToString(Json::Value(Json::objectValue)), "{}");
}

}  // namespace
