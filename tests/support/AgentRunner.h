#pragma once

#include <json/json.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace TestSupport {

// Runs the real agent (build/bin/corvane-agent) as a child process for end-to-end
// tests, in a temporary prefix of its own (conf/, log/, policies/), with the
// build's collect modules and detection module, debug logging, and alerts
// written to <prefix>/log/alerts.json.
class AgentRunner {
public:
    explicit AgentRunner(const std::string& name);
    ~AgentRunner();  // stops the agent if running and removes the prefix

    AgentRunner(const AgentRunner&) = delete;
    AgentRunner& operator=(const AgentRunner&) = delete;

    const std::string& prefix() const { return prefix_; }
    std::string AlertsPath() const { return prefix_ + "/log/alerts.json"; }
    std::string PolicyDir() const { return prefix_ + "/conf/policies"; }

    // Runs the agent through `launcher` (a command that ends by executing its
    // arguments, e.g. unshare); a stop then signals the launcher.
    void SetLauncher(const std::vector<std::string>& launcher) { launcher_ = launcher; }

    // Writes <prefix>/conf/agent.json.
    void WriteConfig(const std::string& json);
    // Writes <policy dir>/<id>/<feature>.json.
    void WritePolicy(const std::string& id, const std::string& feature, const std::string& json);
    void RemovePolicy(const std::string& id, const std::string& feature);

    // Starts the agent; `modules` empty means the collect modules and the detection
    // module of the build. Returns false when it could not be started.
    bool Start(const std::vector<std::string>& extraArgs = {}, const std::vector<std::string>& modules = {});
    pid_t pid() const { return pid_; }
    void Reload();  // SIGHUP
    // SIGTERM and wait (up to `timeoutMs`, then SIGKILL); returns the exit status or -1.
    int Stop(long timeoutMs = 30000);

    // Every alert line so far, parsed (unparsable lines are skipped).
    std::vector<Json::Value> ReadAlerts() const;
    // Waits until some alert satisfies `match`.
    bool WaitForAlert(const std::function<bool(const Json::Value&)>& match, long timeoutMs) const;
    // One process of a detection alert: the alert and its "process_info" entry.
    struct Finding {
        Json::Value alert;
        Json::Value entry;  // null when there is none
    };
    // The entries of the `eventClass` alerts so far that name `pid` and, when
    // `ruleMask` is set, carry one of its "rule" bits.
    std::vector<Finding> Findings(const std::string& eventClass, int pid, unsigned ruleMask = 0) const;
    // The first such finding; its entry is null when none came within `timeoutMs`.
    Finding WaitForFinding(const std::string& eventClass, int pid, unsigned ruleMask = 0,
                           long timeoutMs = 60000) const;

    // The agent's log file text.
    std::string ReadLog() const;
    // Waits until the log holds `needle`.
    bool WaitForLog(const std::string& needle, long timeoutMs) const;
    // Waits until the log holds `more` lines with `needle` beyond those there now.
    bool WaitForMoreLog(const std::string& needle, size_t more, long timeoutMs = 60000) const;
    size_t CountInLog(const std::string& needle) const;
    // Lines with `needle` before the first with `marker` (all of them when there is none).
    size_t CountInLogBefore(const std::string& needle, const std::string& marker) const;

    // Runs the agent with `args` to its end (stopped after two minutes): exit status
    // (-1 when killed) and what it wrote to stdout and stderr.
    struct Outcome {
        int status = -1;
        std::string out;
    };
    static Outcome RunToEnd(const std::string& args);

    // Paths in the build tree.
    static std::string BuildDir();
    static std::string AgentBinary();
    static std::string ModulePath(const std::string& fileName);  // build/module/<fileName>

private:
    std::string prefix_;
    std::vector<std::string> launcher_;
    pid_t pid_ = -1;
};

}  // namespace TestSupport
