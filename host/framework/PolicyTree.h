#pragma once

#include <set>
#include <string>

namespace Framework {

class Policy;
class FeaturePolicy;
class TaskPolicy;

// Walks a policy tree through its composite nodes.
class PolicyTree {
public:
    // Adds `root` and every policy below it to `out`.
    static void Collect(const Policy* root, std::set<const Policy*>& out);
    // Sets `feature` / `task` to the policies in the tree that a task of that
    // feature and name would receive by dispatch; leaves them alone when absent.
    static void FindFor(Policy* root, const std::string& featureName, const std::string& taskName,
                        FeaturePolicy*& feature, TaskPolicy*& task);
};

}  // namespace Framework
