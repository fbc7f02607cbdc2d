#include "framework/TaskCondition.h"

#include <json/json.h>

#include <limits>

#include "sdk/HostLog.h"
#include "sdk/JsonUtils.h"

namespace Framework {

namespace {

// Longer intervals would overflow the scheduler's clock arithmetic; no real schedule comes close.
constexpr int64_t kMaxInterval = std::numeric_limits<int32_t>::max();

bool ReadSeconds(const Json::Value& root, const char* key, int64_t max, int64_t& out) {
    const Json::Value& value = root[key];
    if (!value.isInt64()) {
        return false;
    }
    out = value.asInt64();
    return out >= 0 && out <= max;
}

}  // namespace

bool TaskCondition::Parse(const std::string& json) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(json.c_str(), json.size(), root) != 0 || !root.isObject()) {
        HOST_LOG_ERROR("task condition is not a JSON object: " + json);
        return false;
    }
    Record parsed;
    if (root.isMember("start_time") &&
        !ReadSeconds(root, "start_time", std::numeric_limits<int64_t>::max(), parsed.startTime)) {
        HOST_LOG_ERROR("task condition has a bad start_time: " + json);
        return false;
    }
    if (!root.isMember("repeat_interval") ||
        !ReadSeconds(root, "repeat_interval", kMaxInterval, parsed.repeatInterval) ||
        parsed.repeatInterval == 0) {
        HOST_LOG_ERROR("task condition needs a positive repeat_interval: " + json);
        return false;
    }
    record_ = parsed;
    return true;
}

}  // namespace Framework
