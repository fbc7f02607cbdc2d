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
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "module/ModuleTestUtil.h"
#include "support/TempDir.h"

namespace {

using ModuleTest::Sha256OfFile;
using TestSupport::AgentRunner;
using TestSupport::ReadText;
using TestSupport::TempDir;
using Fields = std::vector<std::pair<const char*, std::string>>;

constexpr long kDeadlineMs = 60000;
const std::string kUser = "1000";

std::string CopyProgram(const std::string& to, mode_t mode) {
    std::ofstream(to, std::ios::binary) << ReadText(DETROOT_HELPER);
    if (chown(to.c_str(), 0, 0) != 0 || chmod(to.c_str(), mode) != 0) {
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

void ExpectFields(const Json::Value& entry, const Fields& fields) {
    for (const auto& [key, value] : fields) {
        EXPECT_EQ(entry[key].asString(), value) << key;
    }
}

// A process tree run by the helper program in a process group of its own; the
// whole group is killed and reaped when the object goes.
class ProcessTree {
public:
    ProcessTree(const std::string& tag, const std::string& program, const std::vector<std::string>& steps)
        : dir_("detroot_" + tag) {
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
        std::string text;
        TestSupport::WaitFor([&] { return !(text = ReadText(dir_.path() + "/" + name)).empty(); },
                             kDeadlineMs);
        return text.empty() ? -1 : std::stoi(text);
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
        programs_ = new TempDir("detroot_programs");
        white_ = new TempDir("detroot_white");
        chmod(programs_->path().c_str(), 0755);
        chmod(white_->path().c_str(), 0755);
        helper_ = CopyProgram(programs_->path() + "/detroot_helper", 0755);
        ignored_ = CopyProgram(programs_->path() + "/detroot_ignored", 0755);
        capCopy_ = CopyProgram(programs_->path() + "/detroot_capcopy", 0755);
        setuidCopy_ = CopyProgram(white_->path() + "/detroot_suid", 04755);
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
    // Waits for the step `name` of `tree`, lets the fork event of that process reach
    // the task, then lets it go on (trigger "go"). Returns its pid.
    static int Release(const ProcessTree& tree, const std::string& name = "B") {
        const int pid = tree.WaitPid(name);
        EXPECT_GT(pid, 0) << tree.Errors();
        std::this_thread::sleep_for(std::chrono::seconds(2));
        tree.Trigger("go");
        return pid;
    }
    // The alert naming only `pid`; null when none came in time.
    static Json::Value WaitForAlert(int pid) {
        Json::Value alert;
        const bool found = agent_->WaitForAlert(
            [pid](const Json::Value& a) {
                return a["event_classid"].asString() == "procdet_0002" && a["process_info"].size() == 1 &&
                       a["process_info"][0]["process_pid"].asInt() == pid;
            },
            kDeadlineMs, &alert);
        return found ? alert : Json::Value();
    }
    // Waits until the task has run `cycles` more full checks.
    static void WaitForChecks(size_t cycles) {
        ModuleTest::WaitForMoreInLog(*agent_, "detroot once check end", cycles, kDeadlineMs);
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
    const int b = Release(tree);
    const Json::Value alert = WaitForAlert(b);
    ASSERT_FALSE(alert.isNull()) << tree.Errors() << agent_->ReadLog();
    EXPECT_EQ(alert["alarm_type"].asInt(), 5);
    const passwd* user = getpwuid(1000);
    ExpectFields(alert["process_info"][0], {{"process_name", "detroot_helper"},
                                            {"process_uid", kUser},
                                            {"process_euid", "0"},
                                            {"process_path", helper_},
                                            {"process_cmdline", tree.Cmdline()},
                                            {"process_hash", Sha256OfFile(helper_)},
                                            {"user_name", user != nullptr ? user->pw_name : ""},
                                            {"parent_process_pid", std::to_string(h)},
                                            {"parent_process_name", "detroot_helper"},
                                            {"parent_process_uid", kUser},
                                            {"parent_process_euid", kUser},
                                            {"parent_process_path", helper_},
                                            {"parent_process_cmdline", tree.Cmdline()}});

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
    const Json::Value alert = WaitForAlert(Release(tree));
    ASSERT_FALSE(alert.isNull()) << tree.Errors();
    EXPECT_EQ(alert["alarm_type"].asInt(), 2);
    ExpectFields(alert["process_info"][0], {{"process_euid", "0"}, {"process_uid", kUser}});
}

TEST_F(DetRootE2E, FileCapabilityGainedByExecAlarms) {
    if (!fileCapsSet_) {
        GTEST_SKIP() << "setcap did not work on " << capCopy_;
    }
    ProcessTree tree("filecap", helper_,
                     {"resuid:1000,1000,1000", "fork", "pid:B", "waitfile:go", "exec:" + capCopy_, "wait"});
    const Json::Value alert = WaitForAlert(Release(tree));
    ASSERT_FALSE(alert.isNull()) << tree.Errors();
    EXPECT_EQ(alert["alarm_type"].asInt(), 5);
    ExpectFields(alert["process_info"][0], {{"process_path", capCopy_},
                                            {"process_name", "detroot_capcopy"},
                                            {"process_cmdline", capCopy_ + " " + tree.dir() + " wait"},
                                            {"process_hash", Sha256OfFile(capCopy_)},
                                            {"process_euid", kUser}});
}

TEST_F(DetRootE2E, RootChildOfParentThatDroppedItsUsersAlarms) {
    // H: real user 1000, effective root without effective capabilities, file-system user
    // 1000 — its children are no root-born processes. P makes the root child C and then
    // drops every user id.
    ProcessTree tree("child", helper_,
                     {"resuid:1000,0,0", "fsuid:1000", "capeff0", "fork", "pid:P", "spawn:C", "waitfile:go",
                      "resuid:1000,1000,1000"});
    const int p = tree.WaitPid("P");
    const Json::Value alert = WaitForAlert(Release(tree, "C"));
    ASSERT_FALSE(alert.isNull()) << tree.Errors();
    EXPECT_EQ(alert["alarm_type"].asInt(), 3);
    ExpectFields(alert["process_info"][0], {{"process_euid", "0"},
                                            {"parent_process_pid", std::to_string(p)},
                                            {"parent_process_uid", kUser},
                                            {"parent_process_euid", kUser},
                                            {"parent_process_path", helper_}});
    // P itself lowered its privileges: nothing to report about it.
    EXPECT_TRUE(EntriesFor(p).empty());
}

TEST_F(DetRootE2E, WhiteListedAndIgnoredProgramsRaiseNothing) {
    ProcessTree suid(
        "suid", helper_,
        {"resuid:1000,1000,1000", "fork", "pid:B", "waitfile:go", "exec:" + setuidCopy_, "wait"});
    const std::vector<std::string> rise = {"resuid:1000,1000,0", "fork", "pid:B", "waitfile:go", "seteuid:0"};
    ProcessTree ignored("ignored", ignored_, rise);
    const int suidPid = Release(suid);
    const int ignoredPid = Release(ignored);

    // The same rise by a program that is neither listed nor ignored is reported; once it
    // is, and two more checks have passed, the others have had their chance too.
    ProcessTree control("control", helper_, rise);
    ASSERT_FALSE(WaitForAlert(Release(control)).isNull()) << control.Errors();
    WaitForChecks(2);

    // Both did rise to effective root; they are simply not reported.
    for (int pid : {suidPid, ignoredPid}) {
        EXPECT_NE(ReadText("/proc/" + std::to_string(pid) + "/status").find("Uid:\t1000\t0\t0\t0"),
                  std::string::npos)
            << pid;
        EXPECT_TRUE(EntriesFor(pid).empty()) << pid;
    }
    EXPECT_EQ(suid.Errors() + ignored.Errors(), "");
}

}  // namespace
