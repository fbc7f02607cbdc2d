#include "ConfigCheck.h"

#include "AgentSettings.h"
#include "ModuleDirectory.h"
#include "PolicyDirectory.h"
#include "PolicySchema.h"

namespace Agent {

std::vector<std::string> ConfigCheck::CheckPolicy(const PolicySchemas& schemas, const std::string& path,
                                                  const std::string& id, const std::string& feature,
                                                  const std::string& text) {
    std::vector<std::string> problems;
    const PolicySchema* schema = schemas.Find(id);
    if (schema == nullptr) {
        return problems;
    }
    for (const ConfigProblem& problem : schema->Check(feature, text)) {
        problems.push_back(problem.Describe(path));
    }
    return problems;
}

std::vector<std::string> ConfigCheck::Run(const AgentPaths& paths, const std::vector<std::string>& modules) {
    AgentSettings settings;
    std::vector<std::string> problems = AgentSettings::LoadFile(paths.config, settings);

    std::vector<std::string> modulePaths = modules;
    std::string error;
    if (modulePaths.empty() && !ModuleDirectory::List(paths.moduleDir, modulePaths, error)) {
        problems.push_back(paths.moduleDir + ": -: cannot be read (" + error + ")");
    }
    PolicySchemas schemas;
    for (const std::string& schemaError : schemas.LoadBeside(modulePaths)) {
        problems.push_back(schemaError);
    }

    const PolicyDirectory directory(paths.policyDir);
    const PolicyDirectory::Snapshot snapshot = directory.Scan();
    if (snapshot.rootUnreadable) {
        problems.push_back(paths.policyDir + ": -: cannot be read");
    }
    for (const std::string& id : snapshot.unreadableIds) {
        problems.push_back(paths.policyDir + id + ": -: cannot be read");
    }
    for (const PolicyDirectory::Key& key : snapshot.unreadable) {
        problems.push_back(directory.PathOf(key) + ": -: cannot be read");
    }
    for (const auto& policy : snapshot.texts) {
        const std::string path = directory.PathOf(policy.first);
        if (schemas.Find(policy.first.first) == nullptr) {
            problems.push_back(path + ": -: no module describes policy id " + policy.first.first);
            continue;
        }
        for (std::string& problem :
             CheckPolicy(schemas, path, policy.first.first, policy.first.second, policy.second)) {
            problems.push_back(std::move(problem));
        }
    }
    return problems;
}

}  // namespace Agent
