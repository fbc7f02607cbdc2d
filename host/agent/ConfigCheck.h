#pragma once

#include <string>
#include <vector>

#include "AgentPaths.h"

namespace Agent {

class PolicySchemas;

// corvane-agent --check: every problem of the settings file and of the policy
// files, without loading any module (their policy schemas are read instead).
class ConfigCheck {
public:
    // Each problem as "FILE: key: what is wrong". `modules`: the module libraries
    // whose schemas apply (the --module options, else the prefix's module directory).
    static std::vector<std::string> Run(const AgentPaths& paths, const std::vector<std::string>& modules);

    // The problems of one policy file of `id` and `feature`, by the schema of the
    // module that takes `id` (none when no module describes it).
    static std::vector<std::string> CheckPolicy(const PolicySchemas& schemas, const std::string& path,
                                                const std::string& id, const std::string& feature,
                                                const std::string& text);
};

}  // namespace Agent
