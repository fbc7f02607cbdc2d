#include "ConfigCheck.h"

#include "AgentSettings.h"
#include "JsonText.h"
#include "ModuleDirectory.h"
#include "PolicyDirectory.h"
#include "PolicySchema.h"
#include "ServiceUnit.h"
#include "report/SinkCheck.h"

namespace Agent {

namespace {

const char* const kRefused = "refused";

// What the report task would refuse or could not use, and, under a unit, what the
// agent would write where the unit's sandbox does not let it.
void CheckWrites(const std::string& config, const AgentSettings& settings, const ServiceUnit* unit,
                 std::vector<FileProblem>& found) {
    for (ReportProblem& problem : CheckSinks(settings.alerts)) {
        found.push_back({config, ConfigProblem::Error(std::move(problem.key), std::move(problem.what))});
    }
    if (unit == nullptr) {
        return;
    }
    std::vector<std::pair<std::string, std::string>> written = WrittenPaths(settings.alerts);
    if (settings.log.target == "file") {
        written.emplace_back("log.directory", settings.log.directory);
    }
    for (const auto& path : written) {
        if (!unit->MayWrite(path.second)) {
            found.push_back(
                {config,
                 ConfigProblem::Error(path.first, path.second + " lies outside what " + unit->GetFile() +
                                                      " lets the agent write (" + unit->DescribeWritable() +
                                                      "); under it the writes fail")});
        }
    }
}

}  // namespace

std::vector<ConfigProblem> ConfigCheck::CheckPolicy(const PolicySchemas& schemas, const std::string& id,
                                                    const std::string& feature, const std::string& text) {
    std::vector<ConfigProblem> problems;
    Json::Value document;
    if (!ReadConfigJson(text, kRefused, document, problems)) {
        return problems;
    }
    if (const PolicySchema* schema = schemas.Find(id)) {
        for (ConfigProblem& problem : schema->Check(feature, document)) {
            problems.push_back(std::move(problem));
        }
    }
    return problems;
}

std::vector<FileProblem> ConfigCheck::Run(const AgentPaths& paths, const std::vector<std::string>& modules,
                                          const ServiceUnit* unit) {
    std::vector<FileProblem> found;
    AgentSettings settings;
    for (ConfigProblem& problem : AgentSettings::LoadFile(paths.config, settings)) {
        found.push_back({paths.config, std::move(problem)});
    }
    settings.ResolvePaths(paths.prefix);
    CheckWrites(paths.config, settings, unit, found);

    std::vector<std::string> modulePaths = modules;
    std::string error;
    if (modulePaths.empty() && !ModuleDirectory::List(paths.moduleDir, modulePaths, error)) {
        found.push_back({paths.moduleDir, ConfigProblem::Error("-", "cannot be read (" + error +
                                                                        "); the agent would not start")});
    }
    PolicySchemas schemas;
    for (FileProblem& problem : schemas.LoadBeside(modulePaths)) {
        found.push_back(std::move(problem));
    }

    const PolicyDirectory directory(paths.policyDir);
    const PolicyDirectory::Snapshot snapshot = directory.Scan();
    if (!snapshot.rootUnreadable.empty()) {
        found.push_back({paths.policyDir, ConfigProblem::Error("-", snapshot.rootUnreadable)});
    }
    for (const auto& id : snapshot.unreadableIds) {
        found.push_back({paths.policyDir + id.first, ConfigProblem::Error("-", id.second)});
    }
    for (const auto& file : snapshot.unreadable) {
        found.push_back(
            {directory.PathOf(file.first), ConfigProblem::Error("-", file.second + "; " + kRefused)});
    }
    for (const auto& policy : snapshot.texts) {
        const std::string path = directory.PathOf(policy.first);
        for (ConfigProblem& problem :
             CheckPolicy(schemas, policy.first.first, policy.first.second, policy.second)) {
            found.push_back({path, std::move(problem)});
        }
        if (schemas.Find(policy.first.first) == nullptr) {
            found.push_back({path, ConfigProblem::Warning("-", "no module here describes policy id " +
                                                                   policy.first.first +
                                                                   "; the agent delivers it only if a loaded "
                                                                   "module takes that id")});
        }
    }
    return found;
}

}  // namespace Agent
