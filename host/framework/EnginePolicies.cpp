// Engine: modules and policy delivery.
#include <Poco/Exception.h>
#include <json/json.h>

#include <algorithm>
#include <exception>
#include <set>

#include "EngineEntry.h"
#include "PolicyTree.h"
#include "framework/FeaturePolicy.h"
#include "framework/Module.h"
#include "framework/Policy.h"
#include "framework/TaskPolicy.h"
#include "sdk/HostLog.h"
#include "sdk/JsonUtils.h"

namespace Framework {

namespace {

template <class Fn>
bool CallGuarded(const std::string& what, Fn&& fn) {
    try {
        fn();
        return true;
    } catch (const Poco::Exception& e) {
        HOST_LOG_ERROR(what + " failed: " + e.displayText());
    } catch (const std::exception& e) {
        HOST_LOG_ERROR(what + " failed: " + e.what());
    }
    return false;
}

}  // namespace

void Engine::AddModule(Module* module) {
    if (module == nullptr) {
        return;
    }
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (std::find(modules_.begin(), modules_.end(), module) == modules_.end()) {
        modules_.push_back(module);
    }
}

void Engine::RemoveModule(Module* module) {
    // The module's policies are objects of its code: they must go before the module does.
    std::vector<std::unique_ptr<Policy>> owned;
    {
        std::lock_guard<std::recursive_mutex> lock(mutex_);
        modules_.erase(std::remove(modules_.begin(), modules_.end(), module), modules_.end());
        for (auto it = policyOwners_.begin(); it != policyOwners_.end();) {
            if (it->second != module) {
                ++it;
                continue;
            }
            auto policy = policies_.find(it->first);
            if (policy != policies_.end()) {
                owned.push_back(std::move(policy->second));
                policies_.erase(policy);
            }
            it = policyOwners_.erase(it);
        }
    }
    for (const auto& policy : owned) {
        DetachFromTasks(*policy);
    }
}

int Engine::DeliverPolicy(const std::string& id, const std::string& featureName, const std::string& content) {
    const std::string what = "policy " + id + " of feature " + featureName;
    Json::Value parsed;
    if (SDK::JsonUtils::ParseJsonStr(content.c_str(), content.size(), parsed) != 0) {
        HOST_LOG_ERROR(what + " is not valid JSON; the previous policy stays in force");
        return -1;
    }
    std::lock_guard<std::recursive_mutex> delivery(deliveryMutex_);
    std::vector<Module*> modules;
    {
        std::lock_guard<std::recursive_mutex> lock(mutex_);
        modules = modules_;
    }
    const auto taker = std::find_if(modules.begin(), modules.end(),
                                    [&id](const Module* module) { return module->HasPolicyCallback(id); });
    if (taker == modules.end()) {
        HOST_LOG_WARNING(what + ": no module takes this policy id");
        return -2;
    }
    Module* module = *taker;
    const auto key = std::make_pair(id, featureName);
    Policy* current = nullptr;
    {
        std::lock_guard<std::recursive_mutex> lock(mutex_);
        ++deliveryDepth_;
        auto stored = policies_.find(key);
        current = stored != policies_.end() ? stored->second.get() : nullptr;
    }

    Policy* fresh = nullptr;
    CallGuarded(what + ": module " + module->GetModuleName(),
                [&] { fresh = module->RefreshPolicy(id, featureName, content, current); });

    std::unique_ptr<Policy> replaced;
    {
        std::lock_guard<std::recursive_mutex> lock(mutex_);
        policyTexts_[key] = content;
        if (fresh != nullptr) {
            replaced = std::move(policies_[key]);
            policies_[key].reset(fresh);
            policyOwners_[key] = module;
        }
    }
    if (fresh != nullptr) {
        int reached = 0;
        CallGuarded(what + ": dispatch", [&] { reached = fresh->Dispatch(nullptr); });
        HOST_LOG_DEBUG(what + " dispatched to " + std::to_string(reached) + " task(s)");
    }
    if (replaced) {
        // Only now: the tasks hold the new policy, none is left pointing at the old one.
        DetachFromTasks(*replaced);
        replaced.reset();
    }
    {
        std::lock_guard<std::recursive_mutex> lock(mutex_);
        --deliveryDepth_;
    }
    StartPendingTasks();
    return 0;
}

std::string Engine::GetPolicyText(const std::string& id, const std::string& featureName) const {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    auto found = policyTexts_.find(std::make_pair(id, featureName));
    return found != policyTexts_.end() ? found->second : std::string();
}

void Engine::AttachStoredPolicies(Task& task) {
    FeaturePolicy* feature = nullptr;
    TaskPolicy* taskPolicy = nullptr;
    for (const auto& policy : policies_) {
        PolicyTree::FindFor(policy.second.get(), task.GetFeatureName(), task.GetTaskName(), feature,
                            taskPolicy);
    }
    if (feature != nullptr) {
        task.AttachFeaturePolicy(feature);
    }
    if (taskPolicy != nullptr) {
        if (taskPolicy->HasCondition()) {
            task.SetTaskCondition(taskPolicy->GetCondition());
        }
        task.AttachTaskPolicy(taskPolicy);
    }
}

void Engine::DetachFromTasks(const Policy& root) {
    std::set<const Policy*> doomed;
    PolicyTree::Collect(&root, doomed);
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    for (const auto& entry : tasks_) {
        entry.second->task->DetachPolicies(doomed);
    }
}

}  // namespace Framework
