#pragma once

#include <string>
#include <vector>

#include "AgentPaths.h"
#include "ConfigProblem.h"

namespace Agent {

class PolicySchemas;
class ServiceUnit;

// corvane-agent --check: every finding about the settings file and the policy files,
// without loading any module (their policy schemas are read instead), and about the
// alert sinks the settings describe, without connecting to any. An error is what the
// running agent would refuse or could not use; a warning is what it would use, and how.
class ConfigCheck {
public:
    // `modules`: the module libraries whose schemas apply (the --module options, else
    // the prefix's module directory). `unit`: the systemd unit whose writable paths
    // every path the agent writes must lie in; null when the agent is not run by one.
    static std::vector<FileProblem> Run(const AgentPaths& paths, const std::vector<std::string>& modules,
                                        const ServiceUnit* unit);

    // The findings of one policy text of `id` and `feature`: an error when the agent
    // refuses it (not JSON, not a JSON object), else the warnings of the schema of the
    // module that takes `id` (none when no module describes it).
    static std::vector<ConfigProblem> CheckPolicy(const PolicySchemas& schemas, const std::string& id,
                                                  const std::string& feature, const std::string& text);
};

}  // namespace Agent
