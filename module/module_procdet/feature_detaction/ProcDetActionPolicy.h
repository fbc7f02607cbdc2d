#pragma once

#include <string>

#include "framework/FeaturePolicy.h"

namespace Engine {

// The "proc_detaction_feature" policy: "enabled", and under "content" the task
// section that becomes a ProcDetActionFullTaskPolicy child.
class ProcDetActionPolicy : public Framework::FeaturePolicy {
public:
    explicit ProcDetActionPolicy(const std::string& name);

    // A disabled policy parses successfully without a child.
    bool Parse(const std::string& content) override;
};

}  // namespace Engine
