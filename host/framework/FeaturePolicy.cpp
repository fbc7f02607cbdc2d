#include "framework/FeaturePolicy.h"

#include "framework/Engine.h"
#include "framework/Task.h"

namespace Framework {

FeaturePolicy::FeaturePolicy(const std::string& featureName) : CompositePolicy(featureName) {}

FeaturePolicy::~FeaturePolicy() = default;

int FeaturePolicy::Dispatch(Policy* parent) {
    Engine* engine = Engine::Instance();
    if (engine == nullptr) {
        return 0;
    }
    int reached = 0;
    for (const std::string& taskName : engine->GetTaskNames()) {
        Task* task = engine->FindTask(taskName);
        if (task != nullptr && task->GetFeatureName() == GetName()) {
            task->AttachFeaturePolicy(this);
            ++reached;
        }
    }
    return reached + CompositePolicy::Dispatch(parent);
}

}  // namespace Framework
