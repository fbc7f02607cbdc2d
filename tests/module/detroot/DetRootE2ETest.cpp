#include <Poco/DigestEngine.h>
#include <Poco/File.h>
#include <Poco/SHA2Engine.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "DetRootTestUtil.h"
#include "support/AgentRunner.h"

namespace {

using DetRootTest::TempDir;
using TestSupport::AgentRunner;

constexpr long kDeadlineMs = 60000;
constexpr unsigned int kUser = 1000;

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string Sha256OfFile(const std::string& path) {
    Poco::SHA2Engine sha(Poco::SHA2Engine::SHA_256);
    sha.update(ReadText(path));
    return Poco::DigestEngine::digestToHex(sha.digest());
}

std::string CopyProgram(const std::string& from, const std::string& to, uid_t owner, mode_t mode) {
    std::ofstream(to, std::ios::binary) << ReadText(from);
    if (chown(to.c_str(), owner, 0) != 0 || chmod(to.c_str(), mode) != 0) {
        ADD_FAILURE() << "chown/chmod " << to;
    }
    return to;
}

// Start time (clock ticks since boot) of a live process, as its stat file gives it.
std::string StartTimeOf(int pid) {
    const std::string stat = ReadText("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    for (int number = 3; number <= 22 && fields >> field; ++number) {
    }
    return field;
}

size_t CountOf(const std::string& text, const std::string& needle) {
    size_t count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++count;
    }
    return count;
}

// A process tree run by the helper program in a process group of its own; the
// whole group is killed and reaped when the object goes.
class ProcessTree {
public:
    ProcessTree(const std::string& tag, const std::string& program, const std::vector<std::string>& steps)
        : dir_(tag) {
        chmod(dir_.path().c_str(), 0777);  // the tree writes its pid files after dropping root
        args_ = {program, dir_.path()};
        args_.insert(args_.end(), steps.begin(), steps.end());
        pid_ = fork();
        if (pid_ == 0) {
            setpgid(0, 0);
            std::vector<char*> argv;
            for (std::string& arg : args_) {
                argv.push_back(arg.data());
            }
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        setpgid(pid_, pid_);
    }
    ~ProcessTree() {
        kill(-pid_, SIGKILL);
        // Orphans of the group come to us (we are their subreaper); collect them all.
        while (waitpid(-pid_, nullptr, 0) > 0 || errno == EINTR) {
        }
    }

    // The pid a step wrote under `name`, or -1 after the deadline.
    int WaitPid(const std::string& name) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kDeadlineMs);
        while (std::chrono::steady_clock::now() < deadline) {
            const std::string text = ReadText(dir_.path() + "/" + name);
            if (!text.empty()) {
                return std::stoi(text);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return -1;
    }
    void Trigger(const std::string& name) const { std::ofstream(dir_.path() + "/" + name) << "go\n"; }
    std::string Errors() const { return ReadText(dir_.path() + "/errors"); }
    // The command line of the helper's processes before any exec.
    std::string Cmdline() const {
        std::string joined;
        for (const std::string& arg : args_) {
            joined += (joined.empty() ? "" : " ") + arg;
        }
        return joined;
    }
    const std::string& dir() const { return dir_.path(); }

private:
    TempDir dir_;
    std::vector<std::string> args_;
    pid_t pid_ = -1;
};

class DetRootE2E : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        programs_ = new TempDir("programs");
        white_ = new TempDir("white");
        helper_ = CopyProgram(DETROOT_HELPER, programs_->path() + "/detroot_helper", 0, 0755);
        ignored_ = CopyProgram(DETROOT_HELPER, programs_->path() + "/detroot_ignored", 0, 0755);
        capCopy_ = CopyProgram(DETROOT_HELPER, programs_->path() + "/detroot_capcopy", 0, 0755);
        setuidCopy_ = CopyProgram(DETROOT_HELPER, white_->path() + "/detroot_suid", 0, 04755);
        fileCapsSet_ = system(("setcap cap_setuid+ep " + capCopy_ + " 2>/dev/null").c_str()) == 0;

        agent_ = new AgentRunner("detroot");
        agent_->WritePolicy("10001", "proc_detroot_feature",
                            R"({"enabled": true, "content": {"ignore_process_d": [")" + ignored_ +
                                R"("], "detroot_full_task": {"task_condition": {"start_time": 0,
                                "repeat_interval": 1}, "report_nonsuid_parent": false}}})");
        // The agent takes its white list from the directories of its PATH.
        const std::string savedPath = getenv("PATH") != nullptr ? getenv("PATH") : "/usr/bin:/bin";
        setenv("PATH", (white_->path() + ":" + savedPath).c_str(), 1);
        started_ = agent_->Start() && agent_->WaitForLog("detroot1 inTime", kDeadlineMs);
        setenv("PATH", savedPath.c_str(), 1);
    }
    static void TearDownTestSuite() {
        agent_->Stop();
        delete agent_;
        delete white_;
        delete programs_;
    }
    void SetUp() override {
        ASSERT_EQ(geteuid(), 0u) << "needs root";
        ASSERT_TRUE(started_) << agent_->ReadLog();
    }

    static std::vector<Json::Value> EntriesFor(int pid) {
        return TestSupport::FindProcessEntries(
            agent_->ReadAlerts(), "procdet_0002",
            [pid](const Json::Value& e) { return e["process_pid"].asInt() == pid; });
    }
    static bool WaitForEntry(int pid, Json::Value* alert) {
        return agent_->WaitForAlert(
            [pid](const Json::Value& a) {
                return a["event_classid"].asString() == "procdet_0002" && a["process_info"].isArray() &&
                       a["process_info"].size() == 1 && a["process_info"][0]["process_pid"].asInt() == pid;
            },
            kDeadlineMs, alert);
    }
    // Lets the fork event of a new process reach the task before the process changes.
    static void SettleFork() { std::this_thread::sleep_for(std::chrono::seconds(2)); }
    // Waits until the task has run `cycles` more full checks.
    static void WaitForChecks(size_t cycles) {
        const size_t seen = CountOf(agent_->ReadLog(), "detroot once check end");
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kDeadlineMs);
        while (CountOf(agent_->ReadLog(), "detroot once check end") < seen + cycles &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
    }
    static std::string UserName(unsigned int uid) {
        const passwd* entry = getpwuid(uid);
        return entry != nullptr ? entry->pw_name : "";
    }

    static AgentRunner* agent_;
    static TempDir* programs_;
    static TempDir* white_;
    static std::string helper_, ignored_, capCopy_, setuidCopy_;
    static bool fileCapsSet_;
    static bool started_;
};

AgentRunner* DetRootE2E::agent_ = nullptr;
TempDir* DetRootE2E::programs_ = nullptr;
TempDir* DetRootE2E::white_ = nullptr;
std::string DetRootE2E::helper_, DetRootE2E::ignored_, DetRootE2E::capCopy_, DetRootE2E::setuidCopy_;
bool DetRootE2E::fileCapsSet_ = false;
bool DetRootE2E::started_ = false;

TEST_F(DetRootE2E, SavedRootRegainedWithCapabilitiesAlarmsOnce) {
    // H drops to user 1000 but keeps root as its saved user; its child B takes root back.
    ProcessTree tree("regain", helper_,
                     {"pid:H", "resuid:1000,1000,0", "fork", "pid:B", "waitfile:go", "seteuid:0",
                      "waitfile:again", "seteuid:1000", "seteuid:0"});
    const int h = tree.WaitPid("H");
    const int b = tree.WaitPid("B");
    ASSERT_GT(b, 0) << tree.Errors();
    SettleFork();
    tree.Trigger("go");

    Json::Value alert;
    ASSERT_TRUE(WaitForEntry(b, &alert)) << tree.Errors() << agent_->ReadLog();
    EXPECT_EQ(alert["alarm_type"].asInt(), 5);
    const Json::Value& e = alert["process_info"][0];
    EXPECT_EQ(e["process_name"].asString(), "detroot_helper");
    EXPECT_EQ(e["process_uid"].asUInt(), kUser);
    EXPECT_EQ(e["process_euid"].asUInt(), 0u);
    EXPECT_EQ(e["process_path"].asString(), helper_);
    EXPECT_EQ(e["process_cmdline"].asString(), tree.Cmdline());
    EXPECT_EQ(e["process_hash"].asString(), Sha256OfFile(helper_));
    EXPECT_EQ(e["user_name"].asString(), UserName(kUser));
    EXPECT_EQ(e["parent_process_pid"].asInt(), h);
    EXPECT_EQ(e["parent_process_name"].asString(), "detroot_helper");
    EXPECT_EQ(e["parent_process_uid"].asUInt(), kUser);
    EXPECT_EQ(e["parent_process_euid"].asUInt(), kUser);
    EXPECT_EQ(e["parent_process_path"].asString(), helper_);
    EXPECT_EQ(e["parent_process_cmdline"].asString(), tree.Cmdline());

    // A second rise of the same process is known already.
    tree.Trigger("again");
    EXPECT_TRUE(agent_->WaitForLog("replicate message by " + StartTimeOf(b) + helper_, kDeadlineMs));
    WaitForChecks(2);
    EXPECT_EQ(EntriesFor(b).size(), 1u);
}

TEST_F(DetRootE2E, SavedRootRegainedWithoutSetuidCapabilityIsEuidAlarm) {
    ProcessTree tree(
        "nocap", helper_,
        {"resuid:1000,1000,0", "capdrop:setuid,setgid", "fork", "pid:B", "waitfile:go", "seteuid:0"});
    const int b = tree.WaitPid("B");
    ASSERT_GT(b, 0) << tree.Errors();
    SettleFork();
    tree.Trigger("go");

    Json::Value alert;
    ASSERT_TRUE(WaitForEntry(b, &alert)) << tree.Errors();
    EXPECT_EQ(alert["alarm_type"].asInt(), 2);
    EXPECT_EQ(alert["process_info"][0]["process_euid"].asUInt(), 0u);
    EXPECT_EQ(alert["process_info"][0]["process_uid"].asUInt(), kUser);
}

TEST_F(DetRootE2E, FileCapabilityGainedByExecAlarms) {
    if (!fileCapsSet_) {
        GTEST_SKIP() << "setcap did not work on " << capCopy_;
    }
    ProcessTree tree("filecap", helper_,
                     {"resuid:1000,1000,1000", "fork", "pid:B", "waitfile:go", "exec:" + capCopy_, "wait"});
    const int b = tree.WaitPid("B");
    ASSERT_GT(b, 0) << tree.Errors();
    SettleFork();
    tree.Trigger("go");

    Json::Value alert;
    ASSERT_TRUE(WaitForEntry(b, &alert)) << tree.Errors();
    EXPECT_EQ(alert["alarm_type"].asInt(), 5);
    const Json::Value& e = alert["process_info"][0];
    EXPECT_EQ(e["process_path"].asString(), capCopy_);
    EXPECT_EQ(e["process_name"].asString(), "detroot_capcopy");
    EXPECT_EQ(e["process_cmdline"].asString(), capCopy_ + " " + tree.dir() + " wait");
    EXPECT_EQ(e["process_hash"].asString(), Sha256OfFile(capCopy_));
    EXPECT_EQ(e["process_euid"].asUInt(), kUser);
}

TEST_F(DetRootE2E, RootChildOfParentThatDroppedItsUsersAlarms) {
    // H: real user 1000, effective root without effective capabilities, file-system user
    // 1000 — its children are no root-born processes. P makes the root child C and then
    // drops every user id.
    ProcessTree tree("child", helper_,
                     {"resuid:1000,0,0", "fsuid:1000", "capeff0", "fork", "pid:P", "spawn:C", "waitfile:go",
                      "resuid:1000,1000,1000"});
    const int p = tree.WaitPid("P");
    const int c = tree.WaitPid("C");
    ASSERT_GT(c, 0) << tree.Errors();
    SettleFork();
    tree.Trigger("go");

    Json::Value alert;
    ASSERT_TRUE(WaitForEntry(c, &alert)) << tree.Errors();
    EXPECT_EQ(alert["alarm_type"].asInt(), 3);
    const Json::Value& e = alert["process_info"][0];
    EXPECT_EQ(e["process_euid"].asUInt(), 0u);
    EXPECT_EQ(e["parent_process_pid"].asInt(), p);
    EXPECT_EQ(e["parent_process_uid"].asUInt(), kUser);
    EXPECT_EQ(e["parent_process_euid"].asUInt(), kUser);
    EXPECT_EQ(e["parent_process_path"].asString(), helper_);
    // P itself lowered its privileges: nothing to report about it.
    EXPECT_TRUE(EntriesFor(p).empty());
}

TEST_F(DetRootE2E, WhiteListedAndIgnoredProgramsRaiseNothing) {
    ProcessTree suid(
        "suid", helper_,
        {"resuid:1000,1000,1000", "fork", "pid:B", "waitfile:go", "exec:" + setuidCopy_, "wait"});
    ProcessTree ignored("ignored", ignored_,
                        {"resuid:1000,1000,0", "fork", "pid:B", "waitfile:go", "seteuid:0"});
    const int suidPid = suid.WaitPid("B");
    const int ignoredPid = ignored.WaitPid("B");
    ASSERT_GT(suidPid, 0) << suid.Errors();
    ASSERT_GT(ignoredPid, 0) << ignored.Errors();
    SettleFork();
    suid.Trigger("go");
    ignored.Trigger("go");

    // The same rise by a program that is neither listed nor ignored is reported; once it
    // is, and two more checks have passed, the others have had their chance too.
    ProcessTree control("control", helper_,
                        {"resuid:1000,1000,0", "fork", "pid:B", "waitfile:go", "seteuid:0"});
    const int controlPid = control.WaitPid("B");
    ASSERT_GT(controlPid, 0) << control.Errors();
    SettleFork();
    control.Trigger("go");
    ASSERT_TRUE(WaitForEntry(controlPid, nullptr)) << control.Errors();
    WaitForChecks(2);

    // Both did rise to effective root; they are simply not reported.
    for (int pid : {suidPid, ignoredPid}) {
        EXPECT_NE(ReadText("/proc/" + std::to_string(pid) + "/status").find("Uid:\t1000\t0\t0\t0"),
                  std::string::npos)
            << pid;
    }
    EXPECT_TRUE(EntriesFor(suidPid).empty()) << suid.Errors();
    EXPECT_TRUE(EntriesFor(ignoredPid).empty()) << ignored.Errors();
    EXPECT_TRUE(suid.Errors().empty()) << suid.Errors();
    EXPECT_TRUE(ignored.Errors().empty()) << ignored.Errors();
}

}  // namespace
