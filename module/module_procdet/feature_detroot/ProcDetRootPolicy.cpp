#include "feature_detroot/ProcDetRootPolicy.h"

#include <json/json.h>

#include <new>

#include "ProcDetLog.h"
#include "feature_detroot/ProcDetRootFullTaskPolicy.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

constexpr const char* kProcDetSource = "module/module_procdet/feature_detroot/ProcDetRootPolicy";

}  // namespace

ProcDetRootPolicy::ProcDetRootPolicy(const std::string& name) : Framework::FeaturePolicy(name) {
    SetKind(kDetRootPolicyKind);
}

ProcDetRootPolicy::~ProcDetRootPolicy() = default;

bool ProcDetRootPolicy::Parse(const std::string& text) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(text.c_str(), text.size(), root) != 0) {
        return false;
    }
    // A disabled feature needs nothing else; the module unregisters its task.
    if (!SDK::JsonUtils::GetBoolValue(root, "enabled", false)) {
        return true;
    }
    Json::Value content;
    if (!SDK::JsonUtils::GetSubobjectValue(root, "content", content)) {
        return false;
    }

    ignoredProcesses_.clear();
    Json::Value ignored;
    if (SDK::JsonUtils::GetArrayValue(content, "ignore_process_d", ignored)) {
        for (Json::ArrayIndex i = 0; i < ignored.size(); ++i) {
            // Each element as a string, as jsoncpp gives it; arrays and objects have none.
            if (!ignored[i].isConvertibleTo(Json::stringValue)) {
                PROCDET_ERROR(GetProcDetLogger(),
                              "policy \"ignore_process_d\": element %u is no string, skipped",
                              static_cast<unsigned>(i));
                continue;
            }
            const std::string path = ignored[i].asString();
            ignoredProcesses_.insert(path);
            ignoredProcesses_.insert(path + " (deleted)");
        }
    }

    Json::Value taskContent;
    if (!SDK::JsonUtils::GetSubobjectValue(content, "detroot_full_task", taskContent)) {
        return false;
    }
    auto* taskPolicy = new (std::nothrow) ProcDetRootFullTaskPolicy("detroot_full_task");
    if (taskPolicy == nullptr) {
        return false;
    }
    // A task policy with a bad schedule is still attached: the task then keeps its
    // current schedule and reads the switch from it.
    static_cast<Framework::Policy*>(taskPolicy)->Parse(SDK::JsonUtils::JsonToString(taskContent));
    Add(taskPolicy);
    return true;
}

}  // namespace Engine
