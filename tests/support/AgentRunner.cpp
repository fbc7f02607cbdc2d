#include "support/AgentRunner.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "support/FileText.h"
#include "support/WaitFor.h"

namespace TestSupport {

AgentRunner::AgentRunner(const std::string& name) {
    std::string pattern = "/tmp/corvane-e2e-" + name + "-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    prefix_ = pattern;
    chmod(prefix_.c_str(), 0755);
    std::filesystem::create_directories(PolicyDir());
    std::filesystem::create_directories(prefix_ + "/log");
}

AgentRunner::~AgentRunner() {
    if (pid_ > 0) {
        Stop(10000);
    }
    std::error_code error;
    if (std::getenv("CORVANE_KEEP_E2E") == nullptr) {
        std::filesystem::remove_all(prefix_, error);
    }
    if (error) {
        std::fprintf(stderr, "could not remove %s: %s\n", prefix_.c_str(), error.message().c_str());
    }
}

void AgentRunner::WriteConfig(const std::string& json) {
    std::ofstream(prefix_ + "/conf/agent.json", std::ios::binary | std::ios::trunc) << json;
}

void AgentRunner::WritePolicy(const std::string& id, const std::string& feature, const std::string& json) {
    std::filesystem::create_directories(PolicyDir() + "/" + id);
    // Written beside and renamed, so a reload never sees half a file.
    const std::string path = PolicyDir() + "/" + id + "/" + feature + ".json";
    std::ofstream(path + ".tmp", std::ios::binary | std::ios::trunc) << json;
    std::rename((path + ".tmp").c_str(), path.c_str());
}

void AgentRunner::RemovePolicy(const std::string& id, const std::string& feature) {
    std::remove((PolicyDir() + "/" + id + "/" + feature + ".json").c_str());
}

std::string AgentRunner::BuildDir() {
    return CORVANE_BUILD_DIR;
}

std::string AgentRunner::AgentBinary() {
    return BuildDir() + "/bin/corvane-agent";
}

std::string AgentRunner::ModulePath(const std::string& fileName) {
    return BuildDir() + "/module/" + fileName;
}

AgentRunner::Outcome AgentRunner::RunToEnd(const std::string& args) {
    Outcome outcome;
    FILE* pipe = ::popen(("timeout 120 " + AgentBinary() + " " + args + " 2>&1").c_str(), "r");
    char buffer[4096];
    for (size_t got = 0; pipe != nullptr && (got = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
        outcome.out.append(buffer, got);
    }
    const int status = pipe != nullptr ? ::pclose(pipe) : -1;
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

bool AgentRunner::Start(const std::vector<std::string>& extraArgs, const std::vector<std::string>& modules) {
    std::vector<std::string> args = launcher_;
    args.insert(args.end(), {AgentBinary(), "--prefix", prefix_, "--policy-dir", PolicyDir(), "--alerts",
                             AlertsPath(), "--log-level", "debug"});
    for (const std::string& module :
         modules.empty() ? std::vector<std::string>{ModulePath("libprocess_collect_module.so"),
                                                    ModulePath("libnet_collect_module.so"),
                                                    ModulePath("libproc_det_module.so")}
                         : modules) {
        args.insert(args.end(), {"--module", module});
    }
    args.insert(args.end(), extraArgs.begin(), extraArgs.end());
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);

    const std::string output = prefix_ + "/log/agent.out";
    pid_ = fork();
    if (pid_ == 0) {
        const int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid_ > 0;
}

void AgentRunner::Reload() {
    if (pid_ > 0) {
        kill(pid_, SIGHUP);
    }
}

namespace {

// True once the process blocks SIGTERM, i.e. takes it as a request to stop rather
// than dying of it: a stop sent right after the start must wait for that. Any
// thread counts, since one waiting in sigwait shows the signal unblocked.
bool HandlesStopSignal(pid_t pid) {
    std::error_code gone;  // then waitpid tells the rest
    for (std::filesystem::directory_iterator task("/proc/" + std::to_string(pid) + "/task", gone), end;
         task != end; task.increment(gone)) {
        const std::string status = ReadText(task->path() / "status");
        const size_t at = status.find("SigBlk:");
        if (at != std::string::npos &&
            (status.find("State:\tZ") != std::string::npos ||
             ((std::strtoull(status.c_str() + at + 7, nullptr, 16) >> (SIGTERM - 1)) & 1u) != 0)) {
            return true;
        }
    }
    return static_cast<bool>(gone);
}

}  // namespace

int AgentRunner::Stop(long timeoutMs) {
    if (pid_ <= 0) {
        return -1;
    }
    WaitFor([&] { return HandlesStopSignal(pid_); }, timeoutMs);
    kill(pid_, SIGTERM);
    int status = 0;
    if (!WaitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeoutMs)) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        status = -1;
    }
    pid_ = -1;
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<Json::Value> AgentRunner::ReadAlerts() const {
    std::vector<Json::Value> alerts;
    std::istringstream lines(ReadText(AlertsPath()));
    for (std::string line; std::getline(lines, line);) {
        Json::Value value;
        if (!line.empty() && Json::Reader().parse(line, value)) {
            alerts.push_back(value);
        }
    }
    return alerts;
}

bool AgentRunner::WaitForAlert(const std::function<bool(const Json::Value&)>& match, long timeoutMs) const {
    return WaitFor(
        [&] {
            const std::vector<Json::Value> alerts = ReadAlerts();
            return std::any_of(alerts.begin(), alerts.end(), match);
        },
        timeoutMs);
}

std::string AgentRunner::ReadLog() const {
    return ReadText(prefix_ + "/log/agent.log") + ReadText(prefix_ + "/log/agent.out");
}

bool AgentRunner::WaitForLog(const std::string& needle, long timeoutMs) const {
    return WaitFor([&] { return ReadLog().find(needle) != std::string::npos; }, timeoutMs);
}

size_t AgentRunner::CountInLog(const std::string& needle) const {
    return CountOf(ReadLog(), needle);
}

size_t AgentRunner::CountInLogBefore(const std::string& needle, const std::string& marker) const {
    const std::string log = ReadLog();
    return CountOf(log.substr(0, log.find(marker)), needle);
}

bool AgentRunner::WaitForMoreLog(const std::string& needle, size_t more, long timeoutMs) const {
    const size_t seen = CountInLog(needle);
    return WaitFor([&] { return CountInLog(needle) >= seen + more; }, timeoutMs);
}

std::vector<AgentRunner::Finding> AgentRunner::Findings(const std::string& eventClass, int pid,
                                                        unsigned ruleMask) const {
    std::vector<Finding> found;
    for (const Json::Value& alert : ReadAlerts()) {
        if (!alert.isObject() || alert.get("event_classid", "").asString() != eventClass ||
            !alert["process_info"].isArray()) {
            continue;
        }
        for (const Json::Value& entry : alert["process_info"]) {
            if (entry["process_pid"].asInt() == pid &&
                (ruleMask == 0 || (entry["rule"].asUInt() & ruleMask) != 0)) {
                found.push_back({alert, entry});
            }
        }
    }
    return found;
}

AgentRunner::Finding AgentRunner::WaitForFinding(const std::string& eventClass, int pid, unsigned ruleMask,
                                                 long timeoutMs) const {
    std::vector<Finding> found;
    WaitFor([&] { return !(found = Findings(eventClass, pid, ruleMask)).empty(); }, timeoutMs);
    return found.empty() ? Finding{} : found.front();
}

}  // namespace TestSupport
