#pragma once

#include <string>

#include "framework/Module.h"
#include "framework/Policy.h"

namespace Engine {

class ProcDetActionFullTask;
class ProcDetRootFullTask;

// The detection plug-in: turns the feature policies delivered under "10001" into
// policy objects and (re)registers the task of each enabled feature. It owns one
// reference to each task it created, for the life of the module.
class ProcDetModule : public Framework::Module {
public:
    ProcDetModule();
    ~ProcDetModule() override;

    int Init() override;
    int UnInit() override;

    // The policy callback: routes by feature name and marks `current` as superseded.
    Framework::Policy* RefreshFeaturePolicy(const std::string& featureName, const std::string& content,
                                            Framework::Policy*& current);
    Framework::Policy* RefreshFeaturePolicyDetRoot(const std::string& featureName,
                                                   const std::string& content);
    Framework::Policy* RefreshFeaturePolicyDetaction(const std::string& featureName,
                                                     const std::string& content);

    ProcDetActionFullTask* GetDetActionTask() const { return detActionTask_; }
    ProcDetRootFullTask* GetDetRootTask() const { return detRootTask_; }

private:
    // Reads "enabled" from a policy text; false when the text is not JSON.
    static bool ReadEnabled(const std::string& content, bool& enabled);
    // The common refresh of one feature: parse the policy, unregister the task,
    // create it on first use, register it again. A disabled policy only unregisters.
    template <class PolicyT, class TaskT>
    Framework::Policy* RefreshFeature(const std::string& featureName, const std::string& content,
                                      const std::string& taskName, TaskT*& task);
    template <class TaskT>
    static void ReleaseTask(TaskT*& task);

    ProcDetRootFullTask* detRootTask_ = nullptr;
    ProcDetActionFullTask* detActionTask_ = nullptr;
};

}  // namespace Engine
