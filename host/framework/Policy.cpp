#include "framework/Policy.h"

#include <json/json.h>

#include "sdk/JsonUtils.h"

namespace Framework {

Policy::Policy(const std::string& name) : name_(name) {}

Policy::~Policy() = default;

bool Policy::Parse(const std::string& content) {
    // The base keeps nothing; it only tells whether the text is usable at all.
    Json::Value root;
    return SDK::JsonUtils::ParseJsonStr(content.c_str(), content.size(), root) == 0;
}

int Policy::Dispatch(Policy* /*parent*/) {
    return 0;
}

bool Policy::PolicyChanged(const std::string& oldContent, const std::string& newContent) {
    return oldContent != newContent;
}

}  // namespace Framework
