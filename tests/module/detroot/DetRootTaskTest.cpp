#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "feature_detroot/ProcDetRootFullTask.h"
#include "feature_detroot/ProcDetRootFullTaskPolicy.h"
#include "feature_detroot/ProcDetRootPolicy.h"
#include "sdk/JsonUtils.h"
#include "sdk/ProcessUtils.h"
#include "support/FakeProcsFullTask.h"
#include "support/TempDir.h"
#include "support/TestEngine.h"

namespace {

using Engine::ProcDetRootFullTask;
using Engine::ProcDetRootFullTaskPolicy;
using Engine::ProcDetRootPolicy;
using ProcInfoPtr = std::shared_ptr<Engine::ProcsMessage::procInfo>;
using Info = Engine::ProcsMessage::procInfo;

constexpr uint64_t kAllCaps = 0x1fffeffffffULL;
// Whether the task marks a process as descending from a set-uid root program, and as born root.
const std::pair<bool, bool> kBoth{true, true};
const std::pair<bool, bool> kNeither{false, false};

// A small file `name` in `dir` with the given owner and mode; returns its path.
std::string MakeFile(const TestSupport::TempDir& dir, const std::string& name, uid_t owner, gid_t group,
                     mode_t mode) {
    const std::string file = dir.Write(name, "#!/bin/sh\n");
    EXPECT_EQ(chown(file.c_str(), owner, group) | chmod(file.c_str(), mode), 0) << file;
    return file;
}

// A fake /proc holding only the processes a test writes, so the task's reads of
// parent status and liveness see exactly what the test says.
class FakeProcRoot {
public:
    FakeProcRoot() { SDK::ProcessUtils::SetProcRoot(dir_.path()); }
    ~FakeProcRoot() { SDK::ProcessUtils::SetProcRoot("/proc"); }

    // A live process with the given filesystem user and effective capability set.
    void Write(int pid, unsigned int fsuid, uint64_t capEff, int ppid = 1) const {
        const std::string dir = dir_.path() + "/" + std::to_string(pid);
        std::filesystem::create_directories(dir);
        std::ofstream(dir + "/status")
            << "Name:\tproc" << pid << "\nPPid:\t" << ppid << "\nUid:\t" << fsuid << "\t" << fsuid << "\t"
            << fsuid << "\t" << fsuid << "\nGid:\t0\t0\t0\t0\n"
            << "CapPrm:\t" << std::hex << capEff << "\nCapEff:\t" << capEff << "\n";
        std::ofstream(dir + "/stat") << pid << " (proc" << pid << ") S " << ppid
                                     << " 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 100 0 0\n";
    }

private:
    TestSupport::TempDir dir_{"detroot_proc"};
};

// A process record; identities 1000 and no capabilities unless changed.
ProcInfoPtr Proc(int pid, int ppid, const std::string& exePath, int64_t startTime) {
    auto record = TestSupport::MakeProc(pid, exePath, ppid);
    record->cmdline = exePath + " --run";
    record->startTime = startTime;
    record->startTimeSec = static_cast<int64_t>(time(nullptr)) - 10;
    return record;
}

// A copy of a record, changed by `change`: the "now" side of a before/after comparison.
template <typename Change>
ProcInfoPtr Copy(const ProcInfoPtr& record, Change change) {
    auto copy = std::make_shared<Info>(*record);
    change(*copy);
    return copy;
}

// The record of `child` as a fork event reports it under `parent`.
ProcInfoPtr ChildOf(const ProcInfoPtr& parent, int pid, const std::string& exePath, int64_t startTime) {
    ProcInfoPtr record = Proc(pid, parent->pid, exePath, startTime);
    record->parentExePath = parent->exePath;
    record->parentStartTime = parent->startTime;
    return record;
}

class DetRootTaskTest : public ::testing::Test {
protected:
    void Fork(const ProcInfoPtr& record) {
        task_->ProcsMessageAction(record->pid, Engine::PROCS_EVENT_FORK, record);
    }
    void UidChange(const ProcInfoPtr& record) {
        task_->ProcsMessageAction(record->pid, Engine::PROCS_EVENT_UID, record);
    }
    std::pair<bool, bool> Marks(const ProcInfoPtr& record) {
        return {task_->IsSuidRoot(record->pid, record->exePath, record->startTime),
                task_->IsBornRoot(record)};
    }

    std::vector<Json::Value> Alerts() {
        std::vector<Json::Value> alerts;
        for (const auto& report : engine_.report().GetReports()) {
            Json::Value alert;
            EXPECT_EQ(report.type, "2");
            EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(report.body.c_str(), report.body.size(), alert), 0);
            alerts.push_back(alert);
        }
        return alerts;
    }
    // The alarm type a check raised, or 0 when it returned 0 (and sent nothing).
    int LastAlarm(int result) {
        const std::vector<Json::Value> alerts = Alerts();
        if (result == 0) {
            EXPECT_EQ(alerts.size(), alarms_) << "a check that returned 0 sent an alarm";
            return 0;
        }
        EXPECT_EQ(alerts.size(), alarms_ + 1);
        alarms_ = alerts.size();
        return alerts.empty() ? -1 : alerts.back()["alarm_type"].asInt();
    }

    // Released once the engine has stopped its tasks: a subscription that Init or UnInit
    // sent may still wait in the fake event task's queue, naming this task.
    struct ReleasedLast {
        ProcDetRootFullTask* task = nullptr;
        ~ReleasedLast() {
            if (task != nullptr) {
                task->release();
            }
        }
    } owner_;
    TestSupport::TestEngine engine_;
    TestSupport::LogCapture log_{"proc_det_module"};
    FakeProcRoot proc_;
    TestSupport::TempDir bin_{"detroot_bin"};
    ProcDetRootFullTask* task_ = owner_.task = new ProcDetRootFullTask();
    size_t alarms_ = 0;
};

TEST_F(DetRootTaskTest, ForkAndIdentityEventsKeepRootAndForkRecords) {
    const std::string suidProgram = MakeFile(bin_, "suidprog", 0, 0, 04755);
    task_->AddWhiteList(bin_.path());

    // 100 runs a white-listed set-uid program as root; 200 and 300 descend from it.
    const ProcInfoPtr p100 = Proc(100, 1, suidProgram, 1000);
    proc_.Write(100, 0, kAllCaps);
    const ProcInfoPtr c200 = ChildOf(p100, 200, "/opt/tool", 2000);
    Fork(c200);
    proc_.Write(200, 0, kAllCaps, 100);
    const ProcInfoPtr c300 = ChildOf(c200, 300, "/opt/worker", 3000);
    Fork(c300);
    EXPECT_EQ(Marks(c300), kBoth);
    // Children of root are born root: nothing to compare a later rise against.
    EXPECT_EQ(task_->GetForkRecordCount(), 0u);

    // 300 dropped to a plain user: its child gets no root record, only a fork record.
    proc_.Write(300, 1000, 0, 200);
    const ProcInfoPtr c400 = ChildOf(c300, 400, "/opt/leaf", 4000);
    Fork(c400);
    EXPECT_EQ(Marks(c400), kNeither);
    EXPECT_EQ(task_->GetForkRecordCount(), 1u);

    // Ignored identity events: a root user id, another start time.
    UidChange(Copy(c300, [](Info& p) { p.uid = 0; }));
    UidChange(Copy(c300, [](Info& p) { p.startTime = 3001; }));
    EXPECT_EQ(Marks(c300), kBoth);

    // A drop of 300 (which forked without capabilities) clears both marks; unreadable
    // identities (4294967295) are non-root like any other.
    UidChange(Copy(c300, [](Info& p) { p.uid = p.euid = 0xFFFFFFFFu; }));
    EXPECT_EQ(Marks(c300), kNeither);

    // 200 forked while holding capabilities, so its own drop does not count.
    UidChange(c200);
    EXPECT_EQ(Marks(c200), kBoth);

    // Pid 300 reused under 200: a fresh record with reset flags.
    const ProcInfoPtr reused = ChildOf(c200, 300, "/opt/other", 3500);
    Fork(reused);
    EXPECT_EQ(Marks(reused), kBoth);
    EXPECT_EQ(Marks(c300), kNeither);
    // Pid 200 reused: the new process has not forked anything, so its drop counts.
    const ProcInfoPtr reused200 = ChildOf(p100, 200, "/opt/tool", 2500);
    Fork(reused200);
    UidChange(reused200);
    EXPECT_FALSE(task_->IsBornRoot(reused200));

    EXPECT_TRUE(task_->IsSuidRoot(999, suidProgram, 0));  // white-listed, no record needed
    EXPECT_FALSE(task_->IsSuidRoot(200, "", 2000));
    EXPECT_FALSE(task_->IsSuidRoot(200, "/opt/tool", 0));
    EXPECT_FALSE(task_->IsBornRoot(nullptr));
    task_->ProcsMessageAction(500, Engine::PROCS_EVENT_FORK, nullptr);
    task_->ProcsMessageAction(500, Engine::PROCS_EVENT_EXEC, Proc(500, 1, "/x", 1));
    EXPECT_EQ(task_->GetForkRecordCount(), 1u);

    // A plain user holding capabilities: both records. Root without capabilities:
    // born root only. (A parent already gone counts as a plain user: FullCheck's pid 13.)
    const size_t roots = task_->GetRootRecordCount();
    proc_.Write(700, 1000, kAllCaps);
    Fork(ChildOf(Proc(700, 1, "/opt/capped", 7000), 701, "/opt/b", 7010));
    EXPECT_EQ(task_->GetRootRecordCount(), roots + 1);
    EXPECT_EQ(task_->GetForkRecordCount(), 2u);
    proc_.Write(800, 0, 0);
    const ProcInfoPtr c801 = ChildOf(Proc(800, 1, "/opt/rootnocap", 8000), 801, "/opt/c", 8010);
    Fork(c801);
    EXPECT_TRUE(task_->IsBornRoot(c801));
    EXPECT_EQ(task_->GetForkRecordCount(), 2u);
}

TEST_F(DetRootTaskTest, PoliciesParseAndInitBuildsTheWhiteList) {
    // The feature policy: duplicates collapse; every path also stands for its
    // replaced-on-disk form; elements are taken as strings, an array has none.
    auto* feature = new ProcDetRootPolicy("proc_detroot_feature");
    EXPECT_FALSE(feature->Parse("{not json"));
    ASSERT_TRUE(feature->Parse(R"({"enabled": true, "content": {
        "ignore_process_d": ["/opt/ignored", "/opt/ignored", 7, ["/opt/c"]],
        "detroot_full_task": {"task_condition": {"repeat_interval": 1}, "report_nonsuid_parent": true}}})"));
    const std::set<std::string> ignored = {"/opt/ignored", "/opt/ignored (deleted)", "7", "7 (deleted)"};
    EXPECT_EQ(feature->GetIgnoredProcesses(), ignored);
    auto* taskPolicy = dynamic_cast<ProcDetRootFullTaskPolicy*>(feature->FindChild("detroot_full_task"));
    ASSERT_NE(taskPolicy, nullptr);
    // Disabled: success, nothing read, the earlier ignored set and task policy kept.
    ASSERT_TRUE(feature->Parse(R"({"enabled": false, "content": {"ignore_process_d": ["/x"]}})"));
    EXPECT_EQ(feature->GetIgnoredProcesses(), ignored);
    EXPECT_EQ(feature->GetChildCount(), 1u);
    // Without content, or without the task object (the ignored set is filled by then),
    // the parse fails; no list at all is no error.
    ProcDetRootPolicy broken("proc_detroot_feature");
    EXPECT_FALSE(broken.Parse(R"({"enabled": true})"));
    EXPECT_FALSE(broken.Parse(R"({"enabled": true, "content": {"ignore_process_d": ["/y"]}})"));
    EXPECT_EQ(broken.GetIgnoredProcesses(), (std::set<std::string>{"/y", "/y (deleted)"}));
    EXPECT_EQ(broken.GetChildCount(), 0u);
    ProcDetRootPolicy noList("proc_detroot_feature");
    EXPECT_TRUE(noList.Parse(R"({"enabled": true, "content": {"detroot_full_task":
        {"task_condition": {"repeat_interval": 5}}}})"));
    EXPECT_TRUE(noList.GetIgnoredProcesses().empty());
    EXPECT_EQ(noList.GetChildCount(), 1u);

    // The task policy: no schedule fails and keeps the switch; a schedule the host
    // refuses fails but the switch is still read; left out, the switch goes off.
    ProcDetRootFullTaskPolicy policy("detroot_full_task");
    ASSERT_TRUE(policy.Parse(R"({"task_condition": {"repeat_interval": 3}, "report_nonsuid_parent": true})"));
    EXPECT_TRUE(policy.GetNosuidParent());
    EXPECT_FALSE(policy.Parse(R"({"report_nonsuid_parent": false})"));
    EXPECT_TRUE(policy.GetNosuidParent());
    EXPECT_FALSE(
        policy.Parse(R"({"task_condition": {"repeat_interval": 0}, "report_nonsuid_parent": false})"));
    EXPECT_FALSE(policy.GetNosuidParent());
    ASSERT_TRUE(policy.Parse(R"({"task_condition": {"repeat_interval": 3}, "report_nonsuid_parent": true})"));
    ASSERT_TRUE(policy.Parse(R"({"task_condition": {"repeat_interval": 3}})"));
    EXPECT_FALSE(policy.GetNosuidParent());

    // The white list: root set-ID programs that anyone may run, in the PATH's
    // directories (not below them), and the ignored programs.
    const std::string in = MakeFile(bin_, "in_suid", 0, 0, 04755);
    const std::string inGroup = MakeFile(bin_, "in_sgid", 1000, 0, 02755);
    const std::vector<std::string> out = {
        MakeFile(bin_, "out_no_other_exec", 0, 0, 04750), MakeFile(bin_, "out_user_owned", 1000, 0, 04755),
        MakeFile(bin_, "out_group_not_root", 0, 1000, 02755), MakeFile(bin_, "out_plain", 0, 0, 0755),
        MakeFile(bin_, "sub/nested_suid", 0, 0, 04755)};
    task_->AttachFeaturePolicy(feature);
    task_->AttachTaskPolicy(taskPolicy);
    const std::string savedPath = getenv("PATH") != nullptr ? getenv("PATH") : "";
    setenv("PATH", (bin_.path() + ":/nonexistent-dir").c_str(), 1);
    EXPECT_EQ(task_->Init(), 0);
    setenv("PATH", savedPath.c_str(), 1);

    EXPECT_EQ(task_->GetMonitorDirs(),
              (std::vector<std::string>{bin_.path(), "/nonexistent-dir", "/usr/lib", "/usr/lib64"}));
    const std::set<std::string>& white = task_->GetWhiteList();
    for (const std::string& path : {in, inGroup, std::string("/opt/ignored"), std::string("7 (deleted)")}) {
        EXPECT_EQ(white.count(path), 1u) << path;
    }
    for (const std::string& path : out) {
        EXPECT_EQ(white.count(path), 0u) << path;
    }
    EXPECT_TRUE(task_->GetReportSuidProc());

    task_->UnInit();
    EXPECT_TRUE(task_->GetWhiteList().empty());
    task_->AttachTaskPolicy(nullptr);
    task_->AttachFeaturePolicy(nullptr);
    delete feature;
}

TEST_F(DetRootTaskTest, SelfAndChildChecksAlarmTypesAndSkips) {
    const std::string suidProgram = MakeFile(bin_, "suidprog", 0, 0, 04755);
    const std::string sgidProgram = MakeFile(bin_, "sgidprog", 0, 0, 02755);
    const ProcInfoPtr shell = Proc(10, 1, "/opt/shell", 100);
    int64_t start = 1000;
    // Each case is a new process, so the once-per-process rule does not hide it.
    auto self = [&](const std::string& path, auto changeOld, auto changeNow) {
        ProcInfoPtr old = Copy(Proc(20, 10, path, ++start), changeOld);
        return LastAlarm(task_->CheckSelfPrompt(Copy(old, changeNow), shell, old));
    };
    auto none = [](Info&) {};
    auto capSetuid = [](Info& p) { p.capSetuid = 1; };
    auto capSetgid = [](Info& p) { p.capSetgid = 1; };
    auto bothCaps = [](Info& p) { p.capSetuid = p.capSetgid = 1; };
    auto rootUser = [](Info& p) { p.euid = 0; };
    auto rootGroup = [](Info& p) { p.egid = 0; };
    auto rootBoth = [](Info& p) { p.euid = p.egid = 0; };
    auto capsAndRoot = [](Info& p) {
        p.capSetuid = p.capSetgid = 1;
        p.euid = 0;
    };

    EXPECT_EQ(self("/opt/a", none, capSetuid), 5);
    EXPECT_EQ(self("/opt/a", none, capSetgid), 6);
    EXPECT_EQ(self("/opt/a", none, rootUser), 2);
    EXPECT_EQ(self("/opt/a", none, rootGroup), 1);
    EXPECT_EQ(self(suidProgram, none, rootUser), 0);
    // A set-uid program explains the user, not the group.
    EXPECT_EQ(self(suidProgram, none, rootBoth), 1);
    EXPECT_EQ(self(sgidProgram, none, rootGroup), 0);
    // Capabilities held at fork time explain every later rise.
    EXPECT_EQ(self("/opt/a", capSetuid, capsAndRoot), 6);
    EXPECT_EQ(self("/opt/a", bothCaps, rootBoth), 0);
    EXPECT_EQ(self("/opt/a", none, none), 0);

    // The pid now belongs to another process: nothing to compare.
    const ProcInfoPtr now = Copy(Proc(30, 10, "/opt/new", 3100), capSetuid);
    EXPECT_EQ(LastAlarm(task_->CheckSelfPrompt(now, shell, Proc(30, 10, "/opt/old", 3000))), 0);

    TestSupport::TempDir white("detroot_white");
    const std::string whiteProgram = MakeFile(white, "helper", 0, 0, 04755);
    task_->AddWhiteList(white.path());

    ProcInfoPtr parent = Proc(50, 1, "/opt/parent", 500);
    parent->startTimeSec -= 1000;
    start = 5000;
    // A fresh child under `up` with root's user (or group) identity.
    auto rootChild = [&](const ProcInfoPtr& up, const std::string& path = "/opt/child") {
        return Copy(Proc(51, up->pid, path, ++start), [](Info& p) { p.euid = 0; });
    };
    auto groupChild = [&](const std::string& path) {
        return Copy(Proc(53, 50, path, ++start), [](Info& p) { p.egid = 0; });
    };
    auto check = [&](const ProcInfoPtr& child, const ProcInfoPtr& up) {
        return LastAlarm(task_->CheckChildPrompt(child, up));
    };

    EXPECT_EQ(check(rootChild(parent), parent), 3);
    EXPECT_EQ(check(groupChild("/opt/gchild"), parent), 4);

    // Init, a white-listed parent, and a parent descending from a white-listed program.
    EXPECT_EQ(check(rootChild(Proc(1, 0, "/sbin/init", 1)), Proc(1, 0, "/sbin/init", 1)), 0);
    EXPECT_EQ(check(rootChild(parent), Proc(52, 1, whiteProgram, 520)), 0);
    proc_.Write(60, 0, kAllCaps);
    const ProcInfoPtr descendant = ChildOf(Proc(60, 1, whiteProgram, 600), 61, "/opt/desc", 610);
    Fork(descendant);
    EXPECT_EQ(check(rootChild(descendant), descendant), 0);
    EXPECT_TRUE(log_.Contains("ignore process 51 spawn by set uid process"));

    // A child older than its parent (the parent's pid was reused), or started more
    // than five minutes ago.
    EXPECT_EQ(
        check(Copy(rootChild(parent), [&](Info& p) { p.startTimeSec = parent->startTimeSec - 1; }), parent),
        0);
    EXPECT_EQ(check(Copy(rootChild(parent), [](Info& p) { p.startTimeSec = time(nullptr) - 1000; }), parent),
              0);

    // A parent born root and never dropped is allowed root children; after its drop it is not.
    proc_.Write(70, 0, kAllCaps);
    const ProcInfoPtr bornRoot = ChildOf(Proc(70, 1, "/opt/daemon", 700), 71, "/opt/worker", 710);
    Fork(bornRoot);
    EXPECT_EQ(check(rootChild(bornRoot), bornRoot), 0);
    UidChange(bornRoot);
    EXPECT_EQ(check(rootChild(bornRoot), bornRoot), 3);

    // A parent holding the set-ID capability, or the root group, may make such children.
    EXPECT_EQ(check(rootChild(parent), Copy(parent, [](Info& p) { p.capSetuid = 1; })), 0);
    EXPECT_EQ(check(groupChild("/opt/gchild"), Copy(parent, [](Info& p) { p.capSetgid = 1; })), 0);
    EXPECT_EQ(check(groupChild("/opt/gchild"), Copy(parent, [](Info& p) { p.egid = 0; })), 0);

    // Legitimate set-ID programs pass unless the policy asks for them.
    EXPECT_EQ(check(rootChild(parent, suidProgram), parent), 0);
    EXPECT_EQ(check(groupChild(sgidProgram), parent), 0);
    task_->SetReportSuidProc(true);
    EXPECT_EQ(check(rootChild(parent, suidProgram), parent), 3);
    EXPECT_EQ(check(groupChild(sgidProgram), parent), 4);
}

TEST_F(DetRootTaskTest, FullCheckSelectsProcessesAndReportsEachIdentityOnce) {
    TestSupport::TempDir white("detroot_white");
    const std::string whiteProgram = MakeFile(white, "helper", 0, 0, 04755);
    task_->AddWhiteList(white.path());

    task_->CheckProcess();  // empty table: nothing to do
    EXPECT_TRUE(Alerts().empty());

    Engine::ProcsFullTask::ProcsMap table;
    auto live = [&](const ProcInfoPtr& record, unsigned int fsuid = 1000, uint64_t caps = 0) {
        proc_.Write(record->pid, fsuid, caps, record->ppid);
        table[record->pid] = record;
        return record;
    };
    // Forked as a plain user, escalated since.
    auto escalated = [&](const ProcInfoPtr& parent, int pid, const std::string& path, int64_t start) {
        ProcInfoPtr forked = ChildOf(parent, pid, path, start);
        Fork(forked);
        return live(Copy(forked, [](Info& p) { p.capSetuid = 1; }));
    };
    const ProcInfoPtr shell = live(Proc(10, 1, "/opt/shell", 100));
    escalated(shell, 11, "/opt/escalated", 110);
    escalated(shell, 12, whiteProgram, 120);                               // white-listed program
    escalated(Proc(99, 1, "/opt/unlisted", 990), 13, "/opt/orphan", 130);  // parent not in the table
    escalated(live(Copy(Proc(15, 1, "", 150), [](Info& p) { p.name.clear(); })), 14, "/opt/a", 140);
    escalated(live(Copy(Proc(17, 1, "/opt/unknown", 170), [](Info& p) { p.euid = 0xFFFFFFFFu; })), 16,
              "/opt/b", 160);
    live(Copy(Proc(18, 10, "/opt/unforked", 180), [](Info& p) { p.capSetuid = 1; }));
    // A white-listed parent holding capabilities as a plain user: its child is a set-ID descendant.
    escalated(live(Proc(20, 1, whiteProgram, 200), 1000, kAllCaps), 19, "/opt/descendant", 190);
    engine_.procs().SetTable(table);

    task_->CheckProcess();
    std::vector<Json::Value> alerts = Alerts();
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0]["process_info"][0]["process_pid"].asInt(), 11);
    EXPECT_EQ(alerts[0]["alarm_type"].asInt(), 5);

    task_->CheckProcess();
    EXPECT_EQ(Alerts().size(), 1u);

    // Pid 11 reused by a new process of the same program: a new identity, a new alarm.
    table[11] = escalated(shell, 11, "/opt/escalated", 111);
    engine_.procs().SetTable(table);
    task_->CheckProcess();
    EXPECT_EQ(Alerts().size(), 2u);

    // Root records of dead processes go at the next full check, not before.
    proc_.Write(30, 0, kAllCaps);
    const ProcInfoPtr born = ChildOf(Proc(30, 1, "/opt/root", 300), 31, "/opt/rootchild", 310);
    Fork(born);
    const size_t records = task_->GetRootRecordCount();
    EXPECT_TRUE(task_->IsBornRoot(born));
    task_->CheckProcess();
    EXPECT_EQ(task_->GetRootRecordCount(), records - 1);
    EXPECT_FALSE(task_->IsBornRoot(born));
    // So do fork records: pid 13 reused by a process whose own fork event left no
    // record (its parent was root) is then like a pid never used.
    const size_t forkRecords = task_->GetForkRecordCount();
    table[13] = live(Copy(Proc(13, 10, "/opt/next", 131), [](Info& p) { p.capSetuid = 1; }));
    engine_.procs().SetTable(table);
    task_->CheckProcess();
    EXPECT_EQ(task_->GetForkRecordCount(), forkRecords - 1);
    EXPECT_FALSE(log_.Contains("/opt/next and /opt/orphan not the same process"));
    EXPECT_EQ(Alerts().size(), 2u);
}

// A long walk of short-lived forks from plain users keeps no more fork records
// than the processes alive between two full checks, however many pids it goes
// through; the records of the processes still alive stay, and still alarm.
TEST_F(DetRootTaskTest, ForkRecordsAreBoundedByLiveProcesses) {
    const ProcInfoPtr shell = Proc(10, 1, "/opt/shell", 100);
    proc_.Write(10, 1000, 0);
    Engine::ProcsFullTask::ProcsMap table{{10, shell}};
    for (int pid = 11; pid < 16; ++pid) {  // long-lived children
        Fork(ChildOf(shell, pid, "/opt/worker", pid));
        table[pid] = ChildOf(shell, pid, "/opt/worker", pid);
    }
    engine_.procs().SetTable(table);
    size_t most = 0;
    for (int fork = 0; fork < 50000; ++fork) {  // through a pid space of 16,384
        Fork(ChildOf(Proc(0x3ffffff, 1, "/opt/gone", 1), 16 + fork % 16368, "/opt/job", 1000 + fork));
        if (fork % 5000 == 4999) {
            most = std::max(most, task_->GetForkRecordCount());
            task_->CheckProcess();
        }
    }
    EXPECT_LE(most, 5005u);
    task_->CheckProcess();
    EXPECT_EQ(task_->GetForkRecordCount(), 5u);
    table[12] = Copy(table[12], [](Info& p) { p.capSetuid = 1; });
    engine_.procs().SetTable(table);
    task_->CheckProcess();
    ASSERT_EQ(Alerts().size(), 1u);
    EXPECT_EQ(Alerts()[0]["process_info"][0]["process_pid"].asInt(), 12);
}

}  // namespace
