#include "AgentApp.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "AgentMetrics.h"
#include "AgentSignals.h"
#include "BuildInfo.h"
#include "ConfigCheck.h"
#include "HeapTrimmer.h"
#include "MetricsEndpoint.h"
#include "ModuleDirectory.h"
#include "ModuleLoader.h"
#include "PolicyDirectory.h"
#include "PolicyPublisher.h"
#include "PolicySchema.h"
#include "ServiceNotifier.h"
#include "ServiceUnit.h"
#include "TaskWatchdog.h"
#include "TextFile.h"
#include "TrustedPath.h"
#include "collect/CollectSettings.h"
#include "framework/Metrics.h"
#include "framework/Task.h"
#include "report/ReportModule.h"
#include "sdk/FileUtils.h"
#include "sdk/HostLog.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/ProcParsers.h"

namespace Agent {

namespace {

// How often the main thread, idle between signals, looks for free heap to give back.
constexpr long kHeapTrimIntervalMs = 30000;

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

// The settings file as plain JSON (null when unreadable), to compare sections across a reload.
Json::Value ReadRawSettings(const std::string& path) {
    std::string text;
    std::string error;
    Json::Value root;
    if (!TextFile::Read(path, 1024 * 1024, text, error) ||
        !SDK::JsonUtils::ParseBounded(text.data(), text.size(), root, error)) {
        return Json::Value();
    }
    return root;
}

void LogSettingsProblems(const std::string& path, const std::vector<ConfigProblem>& problems) {
    for (const ConfigProblem& problem : problems) {
        if (problem.IsError()) {
            HOST_CONSOLE_LOG_ERROR(problem.Describe(path));
        } else {
            HOST_CONSOLE_LOG_WARNING(problem.Describe(path));
        }
    }
}

// Detection reads every process's /proc entries; without the privilege to read
// another user's, most of what it checks is missing. Judged from the agent's own
// effective capabilities: a particular process's entries may be closed for other
// reasons (pid 1 in some VMs and containers).
void WarnWithoutPrivileges() {
    static const struct {
        unsigned bit;
        const char* name;
    } kNeeded[] = {{19, "CAP_SYS_PTRACE"}, {2, "CAP_DAC_READ_SEARCH"}, {12, "CAP_NET_ADMIN"}};
    std::string text;
    SDK::ProcStatusFields status;
    if (SDK::FileUtils::ReadFile("/proc/self/status", text, 64 * 1024) != 0 ||
        !SDK::ParseStatus(text, status) || !status.hasCapEff) {
        HOST_CONSOLE_LOG_WARNING("cannot read the agent's own capabilities from /proc/self/status");
        return;
    }
    std::string missing;
    for (const auto& capability : kNeeded) {
        if (((status.capEff >> capability.bit) & 1u) == 0) {
            missing += (missing.empty() ? "" : ", ") + std::string(capability.name);
        }
    }
    if (!missing.empty()) {
        HOST_CONSOLE_LOG_WARNING(
            "running without the privileges detection needs (missing " + missing +
            "): processes of other users go unchecked and process events may be refused. "
            "Run as root, or with CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH and CAP_NET_ADMIN");
    }
}

}  // namespace

AgentApp::AgentApp() = default;

AgentApp::~AgentApp() {
    // Task threads call back into this object (OnPeriodicRunEnded): none may outlive it.
    StopAll();
}

void AgentApp::OnPeriodicRunEnded(const Framework::Task& /*task*/) {
    if (watchdog_) {
        watchdog_->CycleEnded();
    }
}

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
    if (options.version) {
        std::printf("corvane-agent %s (revision %s)\n", CORVANE_VERSION, CORVANE_REVISION);
        return 0;
    }
    options_ = options;
    paths_ = AgentPaths::Resolve(options, ThisExecutable(), Poco::Path::current());
    if (options.check) {
        return Check(options);
    }
    if (!ExplicitPathsExist(options)) {
        return kExitUsage;
    }
    Configure(options);
    if (!CheckTrusted(options.modules.empty()) || (options.once && !UseTemporarySpool())) {
        return kExitUsage;
    }
    WarnWithoutPrivileges();

    watchdog_ = std::make_unique<TaskWatchdog>(*this);
    report_ = std::make_unique<ReportModule>(settings_.alerts);
    report_->SetOnAlertsTaken([this](uint64_t total) { watchdog_->AlertsTaken(total); });
    if (report_->Init() != 0) {
        const std::string& why = report_->GetStartError();
        HOST_CONSOLE_LOG_ERROR(
            (why.empty() ? "the report task \"data_comm_report_task\" could not be started" : why) +
            "; stopping");
        report_.reset();
        return kExitUsage;
    }
    // A one-shot run beside the service must not take (or fail to take) its port.
    if (!options.once) {
        StartMetrics();
    }
    loader_ = std::make_unique<ModuleLoader>(*this);
    if (!LoadModules(options.modules)) {
        Shutdown();
        return kExitUsage;
    }
    int status = 0;
    if (options.once) {
        status = RunOnce();
    } else {
        Serve();
    }
    // A one-shot run is its own reader: alerts it could not hand on make it fail.
    if (!Shutdown() && options.once && status == 0) {
        status = kExitProblems;
    }
    return status;
}

int AgentApp::Check(const AgentOptions& options) const {
    if (!ExplicitPathsExist(options)) {
        return kExitUsage;
    }
    ServiceUnit unit;
    bool underUnit = false;
    if (!options.unit.empty()) {
        std::string error;
        if (!ServiceUnit::Load(AgentPaths::Under(Poco::Path::current(), options.unit), unit, error)) {
            std::fprintf(stderr, "corvane-agent: --unit %s\n", error.c_str());
            return kExitUsage;
        }
        underUnit = true;
    } else {
        std::string error;
        underUnit = ServiceUnit::FindInstalled(ThisExecutable(), unit, error);
        if (!error.empty()) {
            std::fprintf(stderr,
                         "corvane-agent --check: the installed unit is not read (%s); written paths are "
                         "not checked against it\n",
                         error.c_str());
        }
    }
    size_t errors = 0;
    size_t warnings = 0;
    for (const FileProblem& found : ConfigCheck::Run(paths_, options.modules, underUnit ? &unit : nullptr)) {
        std::printf("%s\n", found.Describe().c_str());
        ++(found.problem.IsError() ? errors : warnings);
    }
    const std::string against = underUnit ? "; written paths checked against " + unit.GetFile() : "";
    std::fprintf(stderr, "corvane-agent --check: %zu errors, %zu warnings in %s and %s%s\n", errors, warnings,
                 paths_.config.c_str(), paths_.policyDir.c_str(), against.c_str());
    // Only errors (what the agent would refuse) fail by default: the unit's ExecStartPre must
    // not keep from starting an agent that would run with these files.
    return errors > 0 || (options.strict && warnings > 0) ? kExitProblems : 0;
}

bool AgentApp::ExplicitPathsExist(const AgentOptions& options) const {
    bool exist = true;
    const struct {
        const std::string& given;
        const std::string& resolved;
        const char* option;
    } named[] = {{options.config, paths_.config, "--config"},
                 {options.policyDir, paths_.policyDir, "--policy-dir"}};
    for (const auto& path : named) {
        if (!path.given.empty() && ::access(path.resolved.c_str(), F_OK) != 0) {
            std::fprintf(stderr, "corvane-agent: %s %s: %s\n", path.option, path.resolved.c_str(),
                         std::strerror(errno));
            exist = false;
        }
    }
    return exist;
}

void AgentApp::Configure(const AgentOptions& options) {
    SDK::PathUtils::SetInstallationPath(paths_.prefix);

    const std::vector<ConfigProblem> problems = AgentSettings::LoadFile(paths_.config, settings_);
    rawSettings_ = ReadRawSettings(paths_.config);
    if (!options.logLevel.empty()) {
        settings_.log.level = options.logLevel;
    }
    settings_.ResolvePaths(paths_.prefix);
    if (options.alerts == "-") {
        settings_.alerts.toStdout = true;
        settings_.alerts.filePath.clear();
    } else if (!options.alerts.empty()) {
        settings_.alerts.filePath = AgentPaths::Under(Poco::Path::current(), options.alerts);
    }
    if (options.once) {
        // The service's sinks stay its own: a one-shot run writes to --alerts only (standard output by
        // default).
        settings_.alerts.sinks.clear();
        settings_.alerts.toStdout = options.alerts.empty() || options.alerts == "-";
        if (options.alerts.empty()) {
            settings_.alerts.filePath.clear();
        }
    }
    SetUpLogging();
    LogSettingsProblems(paths_.config, problems);
    SDK::InnerCpuCtrlUtils::SetCpuShare(settings_.cpuShare);
    HOST_CONSOLE_LOG_NOTICE(
        "corvane-agent " + std::to_string(::getpid()) + " starting: prefix " + paths_.prefix + ", settings " +
        paths_.config + ", policies " + paths_.policyDir + ", CPU share " +
        std::to_string(settings_.cpuShare) + "%, alerts to " +
        (settings_.alerts.filePath.empty() ? std::string("-") : settings_.alerts.filePath) +
        (settings_.alerts.toStdout ? " and standard output" : ""));
}

bool AgentApp::UseTemporarySpool() {
    // Nor its spool: a one-shot run spools in a directory of its own, removed at exit.
    std::string pattern = Poco::Path::temp() + "corvane-once-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        HOST_CONSOLE_LOG_ERROR("--once: cannot create a temporary spool " + pattern + ": " +
                               std::strerror(errno));
        return false;
    }
    onceSpool_ = pattern;
    settings_.alerts.spoolDir = onceSpool_;
    return true;
}

void AgentApp::SetUpLogging() {
    MakeDirectory(paths_.prefix + "log/");
    if (settings_.log.target == "file") {
        MakeDirectory(settings_.log.directory);
    }
    SDK::LoggerUtils::GetInstance()->Setup(settings_.log);
    SDK::HostLog::SetConsoleErrorEcho(settings_.log.target == "file");
}

void AgentApp::StartMetrics() {
    if (settings_.metricsListen.empty()) {
        return;
    }
    AgentMetrics::Publish(this);
    metrics_ = std::make_unique<MetricsEndpoint>();
    std::string error;
    if (!metrics_->Start(settings_.metricsListen, error)) {
        HOST_CONSOLE_LOG_ERROR(error + "; running without metrics");
        metrics_.reset();
        Framework::Metrics::Instance().RemoveRefreshers(this);
        return;
    }
    HOST_CONSOLE_LOG_INFO("metrics served on port " + std::to_string(metrics_->GetPort()) + " (" +
                          settings_.metricsListen + ")");
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
            modulePaths_.push_back(path);
        }
    } else {
        std::vector<std::string> discovered;
        if (!ModuleDirectory::List(paths_.moduleDir, discovered, error)) {
            HOST_CONSOLE_LOG_ERROR("cannot read the module directory " + paths_.moduleDir + ": " + error +
                                   "; stopping");
            return false;
        }
        for (const std::string& path : discovered) {
            if (!TrustedPath::Check(path, error)) {
                HOST_CONSOLE_LOG_ERROR("module " + path + ": " + error + "; stopping (" + kTrustHint + ")");
                return false;
            }
            if (loader_->Load(path, error) == nullptr) {
                AgentMetrics::ModuleLoadErrors().Increment();
                HOST_CONSOLE_LOG_ERROR(error + "; skipped");
            } else {
                modulePaths_.push_back(path);
            }
        }
    }
    if (std::all_of(modulePaths_.begin(), modulePaths_.end(), ModuleDirectory::IsHostModule)) {
        HOST_CONSOLE_LOG_ERROR("no plug-in module loaded" +
                               (explicitModules.empty() ? " from " + paths_.moduleDir : std::string()) +
                               ": nothing would be detected; stopping");
        return false;
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
        if (std::string(collector.id) == ::Engine::kProcsCollectSettingsId) {
            settings[::Engine::kEventBacklogMibKey] = settings_.eventBacklogMib;
        }
        const std::string text = SDK::JsonUtils::JsonToString(settings);
        if (DeliverPolicy(collector.id, collector.feature, text) != 0) {
            HOST_CONSOLE_LOG_ERROR(std::string("the collector settings ") + text + " for \"" + collector.id +
                                   "\" were refused");
        }
    }
}

PolicySchemas AgentApp::LoadSchemas() const {
    PolicySchemas schemas;
    for (const FileProblem& problem : schemas.LoadBeside(modulePaths_)) {
        HOST_CONSOLE_LOG_WARNING("policy schema " + problem.Describe());
    }
    return schemas;
}

void AgentApp::Serve() {
    DeliverCollectSettings();
    const PolicySchemas schemas = LoadSchemas();
    PolicyDirectory policies(paths_.policyDir);
    PolicyPublisher publisher(*this, policies, &schemas);
    publisher.PublishChanges();
    HOST_CONSOLE_LOG_NOTICE("corvane-agent running with " + std::to_string(loader_->GetCount()) + " modules");
    ServiceNotifier::Ready(watchdog_->Summary());
    watchdog_->Start();
    HeapTrimmer heap;
    for (;;) {
        const int signal = AgentSignals::WaitFor(kHeapTrimIntervalMs);
        if (signal == 0) {
            heap.TrimWhenSlack();
            continue;
        }
        if (signal == SIGUSR1) {
            HOST_CONSOLE_LOG_NOTICE("SIGUSR1: reopening the alert files");
            report_->ReopenSinks();
            continue;
        }
        if (signal != SIGHUP) {
            watchdog_->Stop();  // nothing after STOPPING=1 but the stop itself
            ServiceNotifier::Stopping();
            HOST_CONSOLE_LOG_NOTICE(std::string("corvane-agent stopping on ") +
                                    (signal == SIGINT ? "SIGINT" : "SIGTERM"));
            return;
        }
        HOST_CONSOLE_LOG_NOTICE("SIGHUP: re-reading " + paths_.config + " and the policies in " +
                                paths_.policyDir);
        ServiceNotifier::Reloading();
        ReloadSettings();
        const int delivered = publisher.PublishChanges();
        HOST_CONSOLE_LOG_NOTICE("SIGHUP: " + std::to_string(delivered) + " changed policies delivered");
        ServiceNotifier::Ready(watchdog_->Summary());
    }
}

int AgentApp::RunOnce() {
    DeliverCollectSettings();
    const PolicySchemas schemas = LoadSchemas();
    PolicyDirectory policies(paths_.policyDir);
    PolicyPublisher publisher(*this, policies, &schemas);
    publisher.PublishChanges();
    // A periodic task has checked once when one Run returned; a resident one when it
    // made progress after one repeat interval (plus slack for the pass in flight).
    const int64_t start = Framework::Task::ProgressClockMs();
    int64_t longest = 0;
    for (;;) {
        std::vector<std::string> waiting;
        for (const TaskStatus& task : GetTaskStatus()) {
            if (task.system) {
                continue;
            }
            longest = std::max(longest, task.intervalSeconds);
            const bool done = task.periodic
                                  ? task.completedRuns > 0
                                  : task.lastProgressMs >= start + (task.intervalSeconds + 2) * 1000;
            if (!done) {
                waiting.push_back(task.name);
            }
        }
        if (waiting.empty()) {
            HOST_CONSOLE_LOG_INFO("--once: every plug-in task has checked once");
            return publisher.GetRefusedCount() == 0 ? 0 : kExitProblems;
        }
        const int signal = AgentSignals::WaitFor(200);
        if (signal == SIGTERM || signal == SIGINT) {
            HOST_CONSOLE_LOG_ERROR("--once: interrupted before the tasks checked once");
            return kExitProblems;
        }
        if (Framework::Task::ProgressClockMs() - start > (longest + 120) * 1000) {
            std::string names;
            for (const std::string& name : waiting) {
                names += (names.empty() ? "" : ", ") + name;
            }
            HOST_CONSOLE_LOG_ERROR("--once: gave up waiting for " + names);
            return kExitProblems;
        }
    }
}

void AgentApp::ReloadSettings() {
    AgentSettings fresh;
    const std::vector<ConfigProblem> problems = AgentSettings::LoadFile(paths_.config, fresh);
    LogSettingsProblems(paths_.config, problems);
    if (AnyError(problems)) {
        HOST_CONSOLE_LOG_ERROR("SIGHUP: " + paths_.config + " refused; the settings in force stay");
        return;
    }
    if (options_.logLevel.empty() && fresh.log.level != settings_.log.level) {
        SDK::LoggerUtils::GetInstance()->SetLevel(fresh.log.level);
        settings_.log.level = fresh.log.level;
    }
    if (fresh.cpuShare != settings_.cpuShare) {
        SDK::InnerCpuCtrlUtils::SetCpuShare(fresh.cpuShare);
        settings_.cpuShare = fresh.cpuShare;
    }
    if (fresh.procsRefreshSeconds != settings_.procsRefreshSeconds ||
        fresh.netRefreshSeconds != settings_.netRefreshSeconds ||
        fresh.eventBacklogMib != settings_.eventBacklogMib) {
        settings_.procsRefreshSeconds = fresh.procsRefreshSeconds;
        settings_.netRefreshSeconds = fresh.netRefreshSeconds;
        settings_.eventBacklogMib = fresh.eventBacklogMib;
        DeliverCollectSettings();
    }
    // Sinks, log files and listeners are opened once; say so rather than half-apply a change.
    const Json::Value raw = ReadRawSettings(paths_.config);
    for (const char* section : {"log", "alerts", "metrics"}) {
        Json::Value before = rawSettings_.isObject() ? rawSettings_[section] : Json::Value();
        Json::Value after = raw.isObject() ? raw[section] : Json::Value();
        if (before.isObject() && after.isObject()) {
            before.removeMember("level");
            after.removeMember("level");
        }
        if (before != after) {
            HOST_CONSOLE_LOG_WARNING(std::string("SIGHUP: \"") + section + "\" changed in " + paths_.config +
                                     "; it takes effect only when the agent restarts");
        }
    }
}

bool AgentApp::Shutdown() {
    // Plug-in tasks stop first and the report task last, so it writes every alert they sent.
    StopAll();
    if (loader_) {
        loader_->UnloadAll();
    }
    const bool delivered = !report_ || report_->HasDeliveredEverything();
    if (report_) {
        report_->UnInit();
    }
    metrics_.reset();
    if (!onceSpool_.empty() && !delivered) {
        // Its alerts are nowhere else: the spool stays for whoever reads this.
        HOST_CONSOLE_LOG_ERROR(
            "--once: not every alert reached its output (the log says why); those left are kept in " +
            onceSpool_);
    } else if (!onceSpool_.empty()) {
        std::error_code failure;
        std::filesystem::remove_all(onceSpool_, failure);
        if (failure) {
            HOST_CONSOLE_LOG_ERROR("--once: cannot remove its spool " + onceSpool_ + ": " +
                                   failure.message());
        }
    }
    HOST_CONSOLE_LOG_NOTICE("corvane-agent stopped");
    return delivered;
}

}  // namespace Agent
