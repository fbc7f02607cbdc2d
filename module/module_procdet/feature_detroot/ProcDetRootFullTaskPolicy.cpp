#include "feature_detroot/ProcDetRootFullTaskPolicy.h"

#include <json/json.h>

#include "sdk/JsonUtils.h"

namespace Engine {

ProcDetRootFullTaskPolicy::ProcDetRootFullTaskPolicy(const std::string& name) : Framework::TaskPolicy(name) {
    SetKind(kDetRootPolicyKind);
}

ProcDetRootFullTaskPolicy::~ProcDetRootFullTaskPolicy() = default;

bool ProcDetRootFullTaskPolicy::Parse(const std::string& text) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(text.c_str(), text.size(), root) != 0) {
        return false;
    }
    Json::Value condition;
    // Without a schedule the switch is left as it was: a half-read policy must not change behaviour.
    if (!SDK::JsonUtils::GetSubobjectValue(root, "task_condition", condition)) {
        return false;
    }
    const bool parsed = ParseCondition(SDK::JsonUtils::JsonToString(condition));
    reportNonsuidParent_ = SDK::JsonUtils::GetBoolValue(root, "report_nonsuid_parent", false);
    return parsed;
}

}  // namespace Engine
