#include "feature_detaction/ProcDetActionPolicy.h"

#include <json/json.h>

#include <new>

#include "feature_detaction/ProcDetActionFullTaskPolicy.h"
#include "sdk/JsonUtils.h"

namespace Engine {

ProcDetActionPolicy::ProcDetActionPolicy(const std::string& name) : Framework::FeaturePolicy(name) {
    SetKind(kProcDetPolicyKind);
    SetMarked(false);
}

bool ProcDetActionPolicy::Parse(const std::string& content) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(content.c_str(), content.size(), root) != 0) {
        return false;
    }
    if (!SDK::JsonUtils::GetBoolValue(root, "enabled", false)) {
        return true;
    }
    Json::Value section;
    Json::Value taskSection;
    if (!SDK::JsonUtils::GetSubobjectValue(root, "content", section) ||
        !SDK::JsonUtils::GetSubobjectValue(section, kDetActionTaskName, taskSection)) {
        return false;
    }
    auto* child = new (std::nothrow) ProcDetActionFullTaskPolicy(kDetActionTaskName);
    if (child == nullptr) {
        return false;
    }
    // A partly parsed task section still reaches the task: what was read before the
    // failure is valid, the rest keeps its defaults.
    child->Parse(SDK::JsonUtils::JsonToString(taskSection));
    Add(child);
    return true;
}

}  // namespace Engine
