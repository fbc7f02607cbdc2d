#pragma once

#include <memory>
#include <string>
#include <vector>

#include "AgentPaths.h"
#include "AgentSettings.h"
#include "CommandLine.h"
#include "framework/Engine.h"

namespace Agent {

class ModuleLoader;
class ReportModule;

// corvane-agent: reads its settings, sets up logging, starts the report task,
// loads the modules, delivers the policies, and then waits for signals.
class AgentApp : public Framework::Engine {
public:
    static constexpr int kExitUsage = 2;

    AgentApp();
    ~AgentApp() override;

protected:
    // The agent parses its own command line (CommandLine); Poco's processing is switched off.
    void defineOptions(Poco::Util::OptionSet& options) override;
    int main(const std::vector<std::string>& args) override;

private:
    void Configure(const AgentOptions& options);
    // Whether agent.json, the policy directory and (when modules are found there) the module
    // directory pass TrustedPath; logs the first that does not.
    bool CheckTrusted(bool moduleDirUsed);
    void SetUpLogging();
    bool LoadModules(const std::vector<std::string>& explicitModules);
    void DeliverCollectSettings();
    void Serve();
    void Shutdown();

    AgentPaths paths_;
    AgentSettings settings_;
    std::unique_ptr<ReportModule> report_;
    std::unique_ptr<ModuleLoader> loader_;
};

}  // namespace Agent
