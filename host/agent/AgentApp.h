#pragma once

#include <json/json.h>

#include <memory>
#include <string>
#include <vector>

#include "AgentPaths.h"
#include "AgentSettings.h"
#include "CommandLine.h"
#include "framework/Engine.h"

namespace Agent {

class MetricsEndpoint;
class PolicySchemas;
class ModuleLoader;
class ReportModule;
class TaskWatchdog;

// corvane-agent: reads its settings, sets up logging, starts the report task,
// loads the modules, delivers the policies, and then waits for signals.
class AgentApp : public Framework::Engine {
public:
    // Exit status: 0 done; kExitProblems when --check found problems or --once could
    // not finish; kExitUsage when the agent could not start.
    static constexpr int kExitProblems = 1;
    static constexpr int kExitUsage = 2;

    AgentApp();
    ~AgentApp() override;

protected:
    // The agent parses its own command line (CommandLine); Poco's processing is switched off.
    void defineOptions(Poco::Util::OptionSet& options) override;
    int main(const std::vector<std::string>& args) override;
    // A detection cycle ended: the service status says so at once.
    void OnPeriodicRunEnded(const Framework::Task& task) override;

private:
    int Check(const AgentOptions& options) const;
    bool ExplicitPathsExist(const AgentOptions& options) const;
    void Configure(const AgentOptions& options);
    // Whether agent.json, the policy directory and (when modules are found there) the module
    // directory pass TrustedPath; logs the first that does not.
    bool CheckTrusted(bool moduleDirUsed);
    // --once: the alerts go through a temporary spool of its own. False (logged) when it cannot be made.
    bool UseTemporarySpool();
    void SetUpLogging();
    bool LoadModules(const std::vector<std::string>& explicitModules);
    void DeliverCollectSettings();
    void StartMetrics();
    // The policy schemas beside the loaded modules.
    PolicySchemas LoadSchemas() const;
    void Serve();
    int RunOnce();
    void ReloadSettings();
    // False when some alert did not reach every sink.
    bool Shutdown();

    AgentOptions options_;
    AgentPaths paths_;
    Json::Value rawSettings_;  // the settings file as read, to tell what a reload changed
    std::vector<std::string> modulePaths_;
    AgentSettings settings_;
    // Before the report task and the modules, whose threads tell it of cycles and alerts.
    std::unique_ptr<TaskWatchdog> watchdog_;
    std::unique_ptr<ReportModule> report_;
    std::unique_ptr<ModuleLoader> loader_;
    std::unique_ptr<MetricsEndpoint> metrics_;
    std::string onceSpool_;  // --once: its own spool directory, removed at exit
};

}  // namespace Agent
