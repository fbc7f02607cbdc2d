#include "PolicyTree.h"

#include "framework/CompositePolicy.h"
#include "framework/FeaturePolicy.h"
#include "framework/TaskPolicy.h"

namespace Framework {

void PolicyTree::Collect(const Policy* root, std::set<const Policy*>& out) {
    if (root == nullptr) {
        return;
    }
    out.insert(root);
    if (const auto* composite = dynamic_cast<const CompositePolicy*>(root)) {
        for (size_t i = 0; i < composite->GetChildCount(); ++i) {
            Collect(composite->GetChild(i), out);
        }
    }
}

void PolicyTree::FindFor(Policy* root, const std::string& featureName, const std::string& taskName,
                         FeaturePolicy*& feature, TaskPolicy*& task) {
    if (root == nullptr) {
        return;
    }
    if (auto* asTask = dynamic_cast<TaskPolicy*>(root)) {
        if (asTask->GetName() == taskName) {
            task = asTask;
        }
        return;
    }
    if (auto* asFeature = dynamic_cast<FeaturePolicy*>(root)) {
        if (asFeature->GetName() == featureName) {
            feature = asFeature;
        }
    }
    if (auto* composite = dynamic_cast<CompositePolicy*>(root)) {
        for (size_t i = 0; i < composite->GetChildCount(); ++i) {
            FindFor(composite->GetChild(i), featureName, taskName, feature, task);
        }
    }
}

}  // namespace Framework
