#include "AgentApp.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>

#include "AgentSignals.h"
#include "DataReportTask.h"
#include "ModuleDirectory.h"
#include "ModuleLoader.h"
#include "PolicyDirectory.h"
#include "PolicyPublisher.h"
#include "ReportModule.h"
#include "TrustedPath.h"
#include "collect/CollectSettings.h"
#include "sdk/HostLog.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"

namespace Agent {

namespace {

std::string ThisExecutable() {
    char buffer[4096];
    const ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    return length > 0 ? std::string(buffer, static_cast<size_t>(length)) : std::string();
}

const char* const kTrustHint =
    "files the agent loads must be owned by root and writable by no one else; CORVANE_INSECURE_DEV_TREE=1 "
    "lifts this for development trees";

void MakeDirectory(const std::string& dir) {
    try {
        Poco::File(dir).createDirectories();
    } catch (const Poco::Exception& failure) {
        HOST_CONSOLE_LOG_ERROR("cannot create directory " + dir + ": " + failure.displayText());
    }
}

}  // namespace

AgentApp::AgentApp() = default;

AgentApp::~AgentApp() = default;

void AgentApp::defineOptions(Poco::Util::OptionSet& /*options*/) {
    stopOptionsProcessing();
}

int AgentApp::main(const std::vector<std::string>& args) {
    AgentOptions options;
    std::string error;
    if (!CommandLine::Parse(args, options, error)) {
        std::fprintf(stderr, "corvane-agent: %s (see corvane-agent --help)\n", error.c_str());
        return kExitUsage;
    }
    if (options.help) {
        std::fputs(CommandLine::Usage().c_str(), stdout);
        return 0;
    }
    Configure(options);
    if (!CheckTrusted(options.modules.empty())) {
        return kExitUsage;
    }

    report_ = std::make_unique<ReportModule>(settings_.alerts);
    if (report_->Init() != 0) {
        HOST_CONSOLE_LOG_ERROR(
            "the report task \"data_comm_report_task\" could not be started; alerts are lost");
    }
    loader_ = std::make_unique<ModuleLoader>(*this);
    if (!LoadModules(options.modules)) {
        Shutdown();
        return kExitUsage;
    }
    Serve();
    Shutdown();
    return 0;
}

void AgentApp::Configure(const AgentOptions& options) {
    paths_ = AgentPaths::Resolve(options, ThisExecutable(), Poco::Path::current());
    SDK::PathUtils::SetInstallationPath(paths_.prefix);

    const std::vector<std::string> problems = AgentSettings::LoadFile(paths_.config, settings_);
    if (!options.logLevel.empty()) {
        settings_.log.level = options.logLevel;
    }
    settings_.log.directory = AgentPaths::Under(
        paths_.prefix, settings_.log.directory.empty() ? std::string("log/") : settings_.log.directory);
    if (options.alerts == "-") {
        settings_.alerts.toStdout = true;
        settings_.alerts.filePath.clear();
    } else if (!options.alerts.empty()) {
        settings_.alerts.filePath = AgentPaths::Under(Poco::Path::current(), options.alerts);
    } else {
        settings_.alerts.filePath = AgentPaths::Under(paths_.prefix, settings_.alerts.filePath);
    }
    settings_.alerts.spoolDir = AgentPaths::Under(paths_.prefix, settings_.alerts.spoolDir);
    for (SinkSettings& sink : settings_.alerts.sinks) {
        for (std::string* path :
             {&sink.path, &sink.socket, &sink.tokenFile, &sink.headerFile, &sink.caFile}) {
            if (!path->empty()) {
                *path = AgentPaths::Under(paths_.prefix, *path);
            }
        }
    }
    SetUpLogging();
    for (const std::string& problem : problems) {
        HOST_CONSOLE_LOG_ERROR(problem);
    }
    SDK::InnerCpuCtrlUtils::SetCpuShare(settings_.cpuShare);
    HOST_CONSOLE_LOG_INFO("corvane-agent " + std::to_string(::getpid()) + " starting: prefix " +
                          paths_.prefix + ", settings " + paths_.config + ", policies " + paths_.policyDir +
                          ", CPU share " + std::to_string(settings_.cpuShare) + "%, alerts to " +
                          (settings_.alerts.filePath.empty() ? std::string("-") : settings_.alerts.filePath) +
                          (settings_.alerts.toStdout ? " and standard output" : ""));
}

void AgentApp::SetUpLogging() {
    MakeDirectory(paths_.prefix + "log/");
    if (settings_.log.target == "file") {
        MakeDirectory(settings_.log.directory);
    }
    SDK::LoggerUtils::GetInstance()->Setup(settings_.log);
    SDK::HostLog::SetConsoleErrorEcho(settings_.log.target == "file");
}

bool AgentApp::CheckTrusted(bool moduleDirUsed) {
    std::vector<std::string> paths = {paths_.config, paths_.policyDir};
    if (moduleDirUsed) {
        paths.push_back(paths_.moduleDir);
    }
    std::string error;
    for (const std::string& path : paths) {
        if (!TrustedPath::Check(path, error)) {
            HOST_CONSOLE_LOG_ERROR(error + "; stopping (" + kTrustHint + ")");
            return false;
        }
    }
    return true;
}

bool AgentApp::LoadModules(const std::vector<std::string>& explicitModules) {
    std::string error;
    if (!explicitModules.empty()) {
        for (const std::string& path : explicitModules) {
            if (!TrustedPath::Check(path, error)) {
                HOST_CONSOLE_LOG_ERROR("module " + path + ": " + error + "; stopping (" + kTrustHint + ")");
                return false;
            }
            if (loader_->Load(path, error) == nullptr) {
                HOST_CONSOLE_LOG_ERROR(error + "; stopping");
                return false;
            }
        }
        return true;
    }
    std::vector<std::string> discovered;
    if (!ModuleDirectory::List(paths_.moduleDir, discovered, error)) {
        HOST_CONSOLE_LOG_ERROR("cannot read the module directory " + paths_.moduleDir + ": " + error +
                               "; running without modules");
        return true;
    }
    for (const std::string& path : discovered) {
        if (!TrustedPath::Check(path, error)) {
            HOST_CONSOLE_LOG_ERROR("module " + path + ": " + error + "; stopping (" + kTrustHint + ")");
            return false;
        }
        if (loader_->Load(path, error) == nullptr) {
            HOST_CONSOLE_LOG_ERROR(error + "; skipped");
        }
    }
    if (loader_->GetCount() == 0) {
        HOST_CONSOLE_LOG_WARNING("no module loaded from " + paths_.moduleDir);
    }
    return true;
}

void AgentApp::DeliverCollectSettings() {
    const struct {
        const char* id;
        const char* feature;
        int refreshSeconds;
    } collectors[] = {
        {::Engine::kProcsCollectSettingsId, ::Engine::kProcsCollectFeature, settings_.procsRefreshSeconds},
        {::Engine::kNetCollectSettingsId, ::Engine::kNetCollectFeature, settings_.netRefreshSeconds},
    };
    for (const auto& collector : collectors) {
        if (!loader_->AnyTakesPolicy(collector.id)) {
            HOST_CONSOLE_LOG_INFO(std::string("no loaded module takes the collector settings \"") +
                                  collector.id + "\"; that collector keeps its own refresh interval");
            continue;
        }
        Json::Value settings;
        settings[::Engine::kRefreshSecondsKey] = collector.refreshSeconds;
        const std::string text = SDK::JsonUtils::JsonToString(settings);
        if (DeliverPolicy(collector.id, collector.feature, text) != 0) {
            HOST_CONSOLE_LOG_ERROR(std::string("the collector settings ") + text + " for \"" + collector.id +
                                   "\" were refused");
        }
    }
}

void AgentApp::Serve() {
    DeliverCollectSettings();
    PolicyDirectory policies(paths_.policyDir);
    PolicyPublisher publisher(*this, policies);
    publisher.PublishChanges();
    HOST_CONSOLE_LOG_INFO("corvane-agent running with " + std::to_string(loader_->GetCount()) + " modules");
    for (;;) {
        const int signal = AgentSignals::Wait();
        if (signal == SIGUSR1) {
            HOST_CONSOLE_LOG_INFO("SIGUSR1: reopening the alert files");
            report_->GetTask()->ReopenSinks();
            continue;
        }
        if (signal != SIGHUP) {
            HOST_CONSOLE_LOG_INFO(std::string("corvane-agent stopping on ") +
                                  (signal == SIGINT ? "SIGINT" : "SIGTERM"));
            return;
        }
        HOST_CONSOLE_LOG_INFO("SIGHUP: re-reading the policies in " + paths_.policyDir);
        const int delivered = publisher.PublishChanges();
        HOST_CONSOLE_LOG_INFO("SIGHUP: " + std::to_string(delivered) + " changed policies delivered");
    }
}

void AgentApp::Shutdown() {
    // Plug-in tasks stop first and the report task last, so it writes every alert they sent.
    StopAll();
    if (loader_) {
        loader_->UnloadAll();
    }
    if (report_) {
        report_->UnInit();
    }
    HOST_CONSOLE_LOG_INFO("corvane-agent stopped");
}

}  // namespace Agent
