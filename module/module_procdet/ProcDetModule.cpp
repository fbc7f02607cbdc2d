#include "ProcDetModule.h"

#include "ProcDetMetrics.h"

#include <json/json.h>

#include <new>

#include "ProcDetLog.h"
#include "feature_detaction/ProcDetActionFullTask.h"
#include "feature_detaction/ProcDetActionPolicy.h"
#include "feature_detroot/ProcDetRootFullTask.h"
#include "feature_detroot/ProcDetRootPolicy.h"
#include "framework/PolicyCallback.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

constexpr const char* kPolicyId = "10001";
constexpr const char* kDetRootFeatureName = "proc_detroot_feature";
constexpr const char* kDetRootTaskName = "detroot_full_task";

}  // namespace

ProcDetModule::ProcDetModule() : Framework::Module(kModuleName) {}

ProcDetModule::~ProcDetModule() {
    // The engine dropped its own reference when the task was unregistered; this
    // drops the module's, which destroys the task.
    ReleaseTask(detRootTask_);
    ReleaseTask(detActionTask_);
}

template <class TaskT>
void ProcDetModule::ReleaseTask(TaskT*& task) {
    if (task != nullptr) {
        task->release();
        task = nullptr;
    }
}

int ProcDetModule::Init() {
    auto* callback = new (std::nothrow)
        Framework::PolicyCallback<ProcDetModule>(this, &ProcDetModule::RefreshFeaturePolicy);
    if (callback != nullptr) {
        RegisterPolicyCallback(kPolicyId, callback);
    }
    Framework::Module::Init();
    ProcDetMetrics::PublishZeros();
    return 0;
}

int ProcDetModule::UnInit() {
    UnRegisterPolicyCallback(kPolicyId);
    return Framework::Module::UnInit();
}

Framework::Policy* ProcDetModule::RefreshFeaturePolicy(const std::string& featureName,
                                                       const std::string& content,
                                                       Framework::Policy*& current) {
    Framework::Policy* result = nullptr;
    if (featureName == kDetRootFeatureName) {
        result = RefreshFeaturePolicyDetRoot(featureName, content);
    }
    if (featureName == kDetActionFeatureName) {
        result = RefreshFeaturePolicyDetaction(featureName, content);
    }
    if (current != nullptr) {
        current->SetMarked(true);
    }
    return result;
}

Framework::Policy* ProcDetModule::RefreshFeaturePolicyDetRoot(const std::string& featureName,
                                                              const std::string& content) {
    return RefreshFeature<ProcDetRootPolicy>(featureName, content, kDetRootTaskName, detRootTask_);
}

Framework::Policy* ProcDetModule::RefreshFeaturePolicyDetaction(const std::string& featureName,
                                                                const std::string& content) {
    return RefreshFeature<ProcDetActionPolicy>(featureName, content, kDetActionTaskName, detActionTask_);
}

bool ProcDetModule::ReadEnabled(const std::string& content, bool& enabled) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(content.c_str(), content.size(), root) != 0) {
        return false;
    }
    enabled = SDK::JsonUtils::GetBoolValue(root, "enabled", false);
    return true;
}

template <class PolicyT, class TaskT>
Framework::Policy* ProcDetModule::RefreshFeature(const std::string& featureName, const std::string& content,
                                                 const std::string& taskName, TaskT*& task) {
    bool enabled = false;
    if (!ReadEnabled(content, enabled)) {
        return nullptr;
    }
    if (!enabled) {
        // The task object is kept for the next enabled policy.
        UnRegisterTask(taskName);
        return nullptr;
    }
    auto* policy = new (std::nothrow) PolicyT(featureName);
    if (policy == nullptr) {
        return nullptr;
    }
    // A policy that failed to parse in part is still used: the task takes what was read.
    policy->Parse(content);
    // Every refresh restarts the task, so that its Init takes the new policy.
    UnRegisterTask(taskName);
    if (task == nullptr) {
        // The reference this allocation carries is the module's own.
        task = new (std::nothrow) TaskT();
        if (task == nullptr) {
            delete policy;
            return nullptr;
        }
    }
    task->SetTaskEnabled(true);
    RegisterTask(task, false);
    return policy;
}

}  // namespace Engine
