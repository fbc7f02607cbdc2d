#include "TestFeaturePolicy.h"

#include "sdk/JsonUtils.h"

namespace AgentTest {

bool TestFeaturePolicy::Parse(const std::string& content) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(content.data(), content.size(), root) != 0) {
        return false;
    }
    value = SDK::JsonUtils::GetStringValue(root, "value", "");
    burst = SDK::JsonUtils::GetIntValue(root, "burst", 1);
    sentLog = SDK::JsonUtils::GetStringValue(root, "sent_log", "");
    hang = SDK::JsonUtils::GetBoolValue(root, "hang", false);
    return true;
}

}  // namespace AgentTest
