#include <grp.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Poco/String.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "module/ModuleTestUtil.h"
#include "support/AgentRunner.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

using ModuleTest::Sha256OfFile;
using TestSupport::AgentRunner;
using TestSupport::ReadText;
using TestSupport::TempDir;

constexpr long kDeadlineMs = 60000;
const std::string kUser = "1000";

// A root-owned copy of `from` with `mode`.
std::string Install(const std::string& from, const std::string& to, mode_t mode) {
    std::ofstream(to, std::ios::binary) << ReadText(from);
    EXPECT_EQ(chown(to.c_str(), 0, 0) | chmod(to.c_str(), mode), 0) << to;
    return to;
}

// Checks `entry` against the "key=value" pairs of `fields`, separated by ';'.
void ExpectFields(const Json::Value& entry, const std::string& fields) {
    std::istringstream pairs(fields);
    for (std::string pair; std::getline(pairs, pair, ';');) {
        const size_t equals = pair.find('=');
        EXPECT_EQ(entry[pair.substr(0, equals)].asString(), pair.substr(equals + 1)) << pair;
    }
}

// Runs `body` in a child that leads a process group of its own; the whole group is
// killed and reaped when the object goes.
class ProcessGroup {
public:
    explicit ProcessGroup(const std::function<void()>& body) {
        pid_ = fork();
        if (pid_ == 0) {
            setpgid(0, 0);
            body();
            _exit(127);
        }
        setpgid(pid_, pid_);
    }
    ~ProcessGroup() {
        kill(-pid_, SIGKILL);
        // Orphans of the group come to us (we are their subreaper); collect them all.
        while (waitpid(-pid_, nullptr, 0) > 0 || errno == EINTR) {
        }
    }

private:
    pid_t pid_ = -1;
};

// A process tree run by the helper program (see detroot_helper.cpp) in a process group.
class ProcessTree {
public:
    ProcessTree(const std::string& tag, const std::string& program, const std::vector<std::string>& steps)
        : dir_("detroot_" + tag), args_(Args(program, dir_.path(), steps)), group_([this] {
              chmod(dir_.path().c_str(), 0777);  // the tree writes its pid files after dropping root
              std::vector<char*> argv;
              for (std::string& arg : args_) {
                  argv.push_back(arg.data());
              }
              argv.push_back(nullptr);
              execv(argv[0], argv.data());
          }) {}

    // The pid a step wrote under `name`, or -1 after the deadline.
    int WaitPid(const std::string& name) const {
        std::string text;
        TestSupport::WaitFor([&] { return !(text = ReadText(dir_.path() + "/" + name)).empty(); },
                             kDeadlineMs);
        return text.empty() ? -1 : std::stoi(text);
    }
    void Trigger(const std::string& name) const { std::ofstream(dir_.path() + "/" + name) << "go\n"; }
    std::string Errors() const { return ReadText(dir_.path() + "/errors"); }
    // The command line of the helper's processes before any exec.
    std::string Cmdline() const { return Poco::cat(std::string(" "), args_.begin(), args_.end()); }

private:
    static std::vector<std::string> Args(const std::string& program, const std::string& dir,
                                         const std::vector<std::string>& steps) {
        std::vector<std::string> args = {program, dir};
        args.insert(args.end(), steps.begin(), steps.end());
        return args;
    }

    TempDir dir_;
    std::vector<std::string> args_;
    ProcessGroup group_;
};

// Waits for the step "B" of `tree`, lets the fork event of that process reach
// the task (two more passes of its loop, which takes events first, and at least
// two seconds), then lets it go on (trigger "go"). Returns its pid.
int Release(const AgentRunner& agent, const ProcessTree& tree) {
    const int pid = tree.WaitPid("B");
    EXPECT_GT(pid, 0) << tree.Errors();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    agent.WaitForMoreLog("detroot once check end", 2, kDeadlineMs);
    tree.Trigger("go");
    return pid;
}

std::vector<int> ReadPids(const std::string& path) {
    std::vector<int> pids;
    std::istringstream lines(ReadText(path));
    for (int pid = 0; lines >> pid;) {
        pids.push_back(pid);
    }
    return pids;
}

// A rise to root by the helper is reported once, with the alert header and the facts
// of the process and its parent. A raise of CAP_SETUID by capset(2), which no kernel
// event reports, is found by one of the two full checks that follow. Then the textbook escalation: an
// unprivileged shell starts a set-uid-root program, or one with the set-uid file capability, from a directory
// outside the white list, by fork and an immediate exec. Each must alarm (type 5, naming the program) however
// late the agent reads the fork, so the round runs on a quiet and on a loaded machine; the same set-uid
// program in a white-listed directory never alarms. The other alarm types are met by DetRootTaskTest.
TEST(DetRootE2E, EscalationsAlarmOnceWhiteListedProgramsNever) {
    ASSERT_EQ(geteuid(), 0u) << "needs root";
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const TempDir programs("detroot_programs");
    const TempDir white("detroot_white");
    chmod(programs.path().c_str(), 0755);
    chmod(white.path().c_str(), 0755);
    const std::string helper = Install(DETROOT_HELPER, programs.path() + "/detroot_helper", 0755);
    const std::string suidShell = Install("/bin/bash", programs.path() + "/rb", 04755);
    const std::string capSleep = Install("/bin/sleep", programs.path() + "/capsleep", 0755);
    ASSERT_EQ(std::system(("setcap cap_setuid=ep " + capSleep).c_str()), 0);
    const std::string whiteShell = Install("/bin/bash", white.path() + "/wrb", 04755);

    AgentRunner agent("detroot");
    agent.WriteConfig(R"({"collect": {"procs_refresh_seconds": 1}})");
    agent.WritePolicy(
        "10001", "proc_detroot_feature",
        R"({"enabled": true, "content": {"detroot_full_task": {"task_condition": {"start_time": 0,
                          "repeat_interval": 2}, "report_nonsuid_parent": false}}})");
    // The agent takes its white list from the directories of its PATH.
    const std::string savedPath = getenv("PATH") != nullptr ? getenv("PATH") : "/usr/bin:/bin";
    setenv("PATH", (white.path() + ":" + savedPath).c_str(), 1);
    const bool started = agent.Start() && agent.WaitForLog("detroot1 inTime", kDeadlineMs);
    setenv("PATH", savedPath.c_str(), 1);
    ASSERT_TRUE(started) << agent.ReadLog();

    // H drops to user 1000 but keeps root as its saved user (hence capabilities in its
    // permitted set); its child B takes root back, or raises CAP_SETUID by capset.
    ProcessTree tree("regain", helper,
                     {"pid:H", "resuid:1000,1000,0", "fork", "pid:B", "waitfile:go", "seteuid:0"});
    // Its own copy: the once-per-process key is the start time and the program, and
    // trees started in the same clock tick share the first.
    const std::string capsetProgram = Install(DETROOT_HELPER, programs.path() + "/detroot_capset", 0755);
    ProcessTree capset("capset", capsetProgram,
                       {"resuid:1000,1000,0", "fork", "pid:B", "waitfile:go", "capset:7"});
    const int h = tree.WaitPid("H");
    const int b = Release(agent, tree);

    const Json::Value alert = agent.WaitForFinding("procdet_0002", b, 0, kDeadlineMs).alert;
    ASSERT_FALSE(alert.isNull()) << tree.Errors() << agent.ReadLog();
    EXPECT_EQ(alert["event_id"].asString().size(), 36u);
    const passwd* user = getpwuid(1000);
    ExpectFields(
        alert,
        "event_classid=procdet_0002;event_name=detroot;event_category=3000;event_type=3003;severity=3;"
        "event_count=1;attack_phase=4;attack_tag=4;confidence=70;detect_module=proc_det_module;"
        "alarm_type=5");
    ExpectFields(alert["process_info"][0],
                 "process_name=detroot_helper;process_uid=" + kUser + ";process_euid=0;process_path=" +
                     helper + ";process_cmdline=" + tree.Cmdline() + ";process_hash=" + Sha256OfFile(helper) +
                     ";user_name=" + (user != nullptr ? user->pw_name : "") + ";parent_process_pid=" +
                     std::to_string(h) + ";parent_process_name=detroot_helper;parent_process_uid=" + kUser +
                     ";parent_process_euid=" + kUser + ";parent_process_path=" + helper +
                     ";parent_process_cmdline=" + tree.Cmdline());

    const int c = Release(agent, capset);
    const size_t checks = agent.CountInLog("detroot once check end");
    const AgentRunner::Finding raised = agent.WaitForFinding("procdet_0002", c, 0, kDeadlineMs);
    ASSERT_FALSE(raised.alert.isNull()) << capset.Errors() << agent.ReadLog();
    EXPECT_EQ(raised.alert["alarm_type"].asInt(), 5);
    EXPECT_EQ(raised.entry["process_euid"].asString(), kUser);
    EXPECT_LE(agent.CountInLogBefore("detroot once check end",
                                     "cap_setuid changed, pid:" + std::to_string(c) + ","),
              checks + 1);

    // The full checks since the rise have seen it again.
    EXPECT_EQ(agent.Findings("procdet_0002", b).size(), 1u);

    constexpr int kRuns = 20;
    for (const bool loaded : {false, true}) {
        SCOPED_TRACE(loaded ? "loaded" : "quiet");
        const TempDir pids("detroot_pids");
        chmod(pids.path().c_str(), 0777);
        // `; true` keeps bash from replacing itself with sleep. The pause is between
        // launches (so that no two share a start tick), never between fork and exec.
        const auto launch = [&](const std::string& command, const std::string& list) {
            return "for i in $(seq " + std::to_string(kRuns) + "); do " + command + " & echo $! >> " +
                   pids.path() + "/" + list + "; sleep 0.05; done; wait";
        };
        // Loaded: two busy loops keep both cores at work while the group lives.
        const std::string script = (loaded ? "for j in 1 2; do while :; do :; done & done; " : "") +
                                   launch(suidShell + " -p -c 'sleep 600; true'", "suid") + " & " +
                                   launch(capSleep + " 600", "cap") + " & " +
                                   launch(whiteShell + " -p -c 'sleep 600; true'", "white") + "; wait";
        const ProcessGroup shell([&] {
            if (setgroups(0, nullptr) == 0 && setresgid(65534, 65534, 65534) == 0 &&
                setresuid(65534, 65534, 65534) == 0) {
                execl("/bin/sh", "sh", "-c", script.c_str(), static_cast<char*>(nullptr));
            }
        });
        std::vector<int> suid, cap, whiteListed;
        ASSERT_TRUE(TestSupport::WaitFor(
            [&] {
                suid = ReadPids(pids.path() + "/suid");
                cap = ReadPids(pids.path() + "/cap");
                whiteListed = ReadPids(pids.path() + "/white");
                return suid.size() == kRuns && cap.size() == kRuns && whiteListed.size() == kRuns;
            },
            kDeadlineMs));
        for (const auto& [program, started] :
             {std::make_pair(suidShell, suid), std::make_pair(capSleep, cap)}) {
            for (const int pid : started) {
                const AgentRunner::Finding finding =
                    agent.WaitForFinding("procdet_0002", pid, 0, kDeadlineMs);
                ASSERT_FALSE(finding.entry.isNull()) << program << " pid " << pid;
                EXPECT_EQ(finding.alert["alarm_type"].asInt(), 5) << pid;
                EXPECT_EQ(finding.entry["process_path"].asString(), program) << pid;
                EXPECT_EQ(finding.entry["process_uid"].asString(), "65534") << pid;
            }
        }
        agent.WaitForMoreLog("detroot once check end", 2, kDeadlineMs);
        for (const int pid : whiteListed) {
            EXPECT_TRUE(agent.Findings("procdet_0002", pid).empty()) << "white-listed " << pid;
        }
    }
    agent.Stop();
}

}  // namespace
