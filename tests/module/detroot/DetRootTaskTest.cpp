#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>

#include <algorithm>
#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "DetRootTestUtil.h"
#include "feature_detroot/ProcDetRootFullTask.h"
#include "feature_detroot/ProcDetRootFullTaskPolicy.h"
#include "feature_detroot/ProcDetRootPolicy.h"
#include "sdk/JsonUtils.h"
#include "support/TestEngine.h"

namespace {

using namespace DetRootTest;
using Engine::ProcDetRootFullTask;

class DetRootTaskTest : public ::testing::Test {
protected:
    void Fork(const ProcInfoPtr& record) {
        task_->ProcsMessageAction(record->pid, Engine::PROCS_EVENT_FORK, record);
    }
    void UidChange(const ProcInfoPtr& record) {
        task_->ProcsMessageAction(record->pid, Engine::PROCS_EVENT_UID, record);
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

TEST_F(DetRootTaskTest, SetIdMarkSpreadsDownRootTreeAndIdentityDropClearsIt) {
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
    EXPECT_TRUE(task_->IsSuidRoot(200, "/opt/tool", 2000));
    EXPECT_TRUE(task_->IsSuidRoot(300, "/opt/worker", 3000));
    EXPECT_TRUE(task_->IsBornRoot(c300));
    EXPECT_TRUE(log_.Contains("add suid process 300"));
    // Children of root are born root: nothing to compare a later rise against.
    EXPECT_EQ(task_->GetForkRecordCount(), 0u);

    // 300 dropped to a plain user: its child gets no root record, only a fork record.
    proc_.Write(300, 1000, 0, 200);
    Fork(ChildOf(c300, 400, "/opt/leaf", 4000));
    EXPECT_FALSE(task_->IsSuidRoot(400, "/opt/leaf", 4000));
    EXPECT_FALSE(task_->IsBornRoot(Proc(400, 300, "/opt/leaf", 4000)));
    EXPECT_EQ(task_->GetForkRecordCount(), 1u);

    // Ignored identity events: a root user id, another start time.
    ProcInfoPtr event = Copy(c300);
    event->uid = 0;
    UidChange(event);
    event = Copy(c300);
    event->startTime = 3001;
    UidChange(event);
    EXPECT_TRUE(task_->IsSuidRoot(300, "/opt/worker", 3000));
    EXPECT_TRUE(task_->IsBornRoot(c300));

    // A drop of 300 (which forked without capabilities) clears both marks; unreadable
    // identities (4294967295) are non-root like any other.
    event = Copy(c300);
    event->uid = event->euid = 0xFFFFFFFFu;
    UidChange(event);
    EXPECT_TRUE(log_.Contains("recvdetroot uid pid 300, uid 4294967295"));
    for (const auto& line : log_.GetLines()) {
        EXPECT_EQ(line.file, "ProcDetRootFullTask") << line.text;  // the class, whichever file logs
    }
    EXPECT_FALSE(task_->IsSuidRoot(300, "/opt/worker", 3000));
    EXPECT_FALSE(task_->IsBornRoot(c300));

    // 200 forked while holding capabilities, so its own drop does not count.
    UidChange(c200);
    EXPECT_TRUE(task_->IsSuidRoot(200, "/opt/tool", 2000));
    EXPECT_TRUE(task_->IsBornRoot(c200));

    // Pid 300 reused under 200: a fresh record with reset flags.
    const ProcInfoPtr reused = ChildOf(c200, 300, "/opt/other", 3500);
    Fork(reused);
    EXPECT_TRUE(task_->IsBornRoot(reused));
    EXPECT_TRUE(task_->IsSuidRoot(300, "/opt/other", 3500));
    EXPECT_FALSE(task_->IsSuidRoot(300, "/opt/worker", 3000));
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
}

TEST_F(DetRootTaskTest, ForkRecordsFollowParentStatus) {
    // Parent already gone: unknown status counts as a plain user.
    Fork(ChildOf(Proc(600, 1, "/opt/gone", 6000), 601, "/opt/a", 6010));
    EXPECT_EQ(task_->GetRootRecordCount(), 0u);
    EXPECT_EQ(task_->GetForkRecordCount(), 1u);

    // A plain user holding capabilities: both a root record and a fork record.
    proc_.Write(700, 1000, kAllCaps);
    Fork(ChildOf(Proc(700, 1, "/opt/capped", 7000), 701, "/opt/b", 7010));
    EXPECT_EQ(task_->GetRootRecordCount(), 1u);
    EXPECT_EQ(task_->GetForkRecordCount(), 2u);

    // Root without effective capabilities: born root, no fork record.
    proc_.Write(800, 0, 0);
    const ProcInfoPtr c801 = ChildOf(Proc(800, 1, "/opt/rootnocap", 8000), 801, "/opt/c", 8010);
    Fork(c801);
    EXPECT_TRUE(task_->IsBornRoot(c801));
    EXPECT_EQ(task_->GetForkRecordCount(), 2u);
}

TEST_F(DetRootTaskTest, InitCopiesPoliciesAndBuildsWhiteList) {
    const std::string in = MakeFile(bin_, "in_suid", 0, 0, 04755);
    const std::string inGroup = MakeFile(bin_, "in_sgid", 1000, 0, 02755);
    MakeFile(bin_, "out_no_other_exec", 0, 0, 04750);
    MakeFile(bin_, "out_user_owned", 1000, 0, 04755);
    MakeFile(bin_, "out_group_not_root", 0, 1000, 02755);
    MakeFile(bin_, "out_plain", 0, 0, 0755);
    const std::string nested = MakeFile(bin_, "sub/nested_suid", 0, 0, 04755);

    auto* feature = new Engine::ProcDetRootPolicy("proc_detroot_feature");
    ASSERT_TRUE(feature->Parse(R"({"enabled": true, "content": {"ignore_process_d": ["/opt/ignored"],
        "detroot_full_task": {"task_condition": {"repeat_interval": 1}, "report_nonsuid_parent": true}}})"));
    task_->AttachFeaturePolicy(feature);
    task_->AttachTaskPolicy(static_cast<Framework::TaskPolicy*>(feature->FindChild("detroot_full_task")));

    const std::string savedPath = getenv("PATH") != nullptr ? getenv("PATH") : "";
    setenv("PATH", (bin_.path() + ":/nonexistent-dir").c_str(), 1);
    EXPECT_EQ(task_->Init(), 0);
    setenv("PATH", savedPath.c_str(), 1);

    EXPECT_EQ(task_->GetMonitorDirs(),
              (std::vector<std::string>{bin_.path(), "/nonexistent-dir", "/usr/lib", "/usr/lib64"}));
    const std::set<std::string>& white = task_->GetWhiteList();
    for (const std::string& path :
         {in, inGroup, std::string("/opt/ignored"), std::string("/opt/ignored (deleted)")}) {
        EXPECT_EQ(white.count(path), 1u) << path;
    }
    for (const char* name : {"out_no_other_exec", "out_user_owned", "out_group_not_root", "out_plain"}) {
        EXPECT_EQ(white.count(bin_.path() + "/" + name), 0u) << name;
    }
    EXPECT_EQ(white.count(nested), 0u);
    EXPECT_TRUE(log_.Contains("detroot addwhiteList " + in));
    EXPECT_TRUE(task_->GetReportSuidProc());

    task_->UnInit();
    EXPECT_TRUE(task_->GetWhiteList().empty());
    task_->AttachTaskPolicy(nullptr);
    task_->AttachFeaturePolicy(nullptr);
    delete feature;
}

TEST_F(DetRootTaskTest, SelfCheckAlarmTypesAndSkips) {
    const std::string suidProgram = MakeFile(bin_, "suidprog", 0, 0, 04755);
    const std::string sgidProgram = MakeFile(bin_, "sgidprog", 0, 0, 02755);
    const ProcInfoPtr parent = Proc(10, 1, "/opt/shell", 100);
    int64_t start = 1000;
    // Each case is a new process, so the once-per-process rule does not hide it.
    auto check = [&](const std::string& path, auto changeOld, auto changeNow) {
        ProcInfoPtr old = Proc(20, 10, path, ++start);
        changeOld(*old);
        ProcInfoPtr now = Copy(old);
        changeNow(*now);
        return LastAlarm(task_->CheckSelfPrompt(now, parent, old));
    };
    auto none = [](Engine::ProcsMessage::procInfo&) {};
    auto capSetuid = [](Engine::ProcsMessage::procInfo& p) { p.capSetuid = 1; };
    auto capSetgid = [](Engine::ProcsMessage::procInfo& p) { p.capSetgid = 1; };
    auto rootUser = [](Engine::ProcsMessage::procInfo& p) { p.euid = 0; };
    auto rootGroup = [](Engine::ProcsMessage::procInfo& p) { p.egid = 0; };
    auto rootBoth = [](Engine::ProcsMessage::procInfo& p) { p.euid = p.egid = 0; };
    auto capsAndRoot = [](Engine::ProcsMessage::procInfo& p) {
        p.capSetuid = p.capSetgid = 1;
        p.euid = 0;
    };

    EXPECT_EQ(check("/opt/a", none, capSetuid), 5);
    EXPECT_TRUE(log_.Contains("self prompt:cap_setuid changed, pid:20, path:/opt/a"));
    EXPECT_EQ(check("/opt/a", none, capSetgid), 6);
    EXPECT_EQ(check("/opt/a", none, rootUser), 2);
    EXPECT_EQ(check("/opt/a", none, rootGroup), 1);
    EXPECT_EQ(check(suidProgram, none, rootUser), 0);
    // A set-uid program explains the user, not the group.
    EXPECT_EQ(check(suidProgram, none, rootBoth), 1);
    EXPECT_EQ(check(sgidProgram, none, rootGroup), 0);
    // Capabilities held at fork time explain every later rise.
    EXPECT_EQ(check("/opt/a", capSetuid, capsAndRoot), 6);
    EXPECT_EQ(
        check(
            "/opt/a", [](Engine::ProcsMessage::procInfo& p) { p.capSetuid = p.capSetgid = 1; }, rootBoth),
        0);
    EXPECT_EQ(check("/opt/a", none, none), 0);

    // The pid now belongs to another process: nothing to compare.
    ProcInfoPtr old = Proc(30, 10, "/opt/old", 3000);
    ProcInfoPtr now = Proc(30, 10, "/opt/new", 3100);
    now->capSetuid = 1;
    EXPECT_EQ(LastAlarm(task_->CheckSelfPrompt(now, parent, old)), 0);
    EXPECT_TRUE(log_.Contains("/opt/new and /opt/old not the same process. pid: 30, timenew 3100,  3000"));
}

TEST_F(DetRootTaskTest, ChildCheckAlarmTypesAndSkips) {
    const std::string suidProgram = MakeFile(bin_, "suidprog", 0, 0, 04755);
    const std::string sgidProgram = MakeFile(bin_, "sgidprog", 0, 0, 02755);
    TestSupport::TempDir white("detroot_white");
    const std::string whiteProgram = MakeFile(white, "helper", 0, 0, 04755);
    task_->AddWhiteList(white.path());

    ProcInfoPtr parent = Proc(50, 1, "/opt/parent", 500);
    parent->startTimeSec -= 1000;
    int64_t start = 5000;
    auto rootChild = [&](const ProcInfoPtr& up, const std::string& path = "/opt/child") {
        ProcInfoPtr child = Proc(51, up->pid, path, ++start);
        child->euid = 0;
        return child;
    };
    auto check = [&](const ProcInfoPtr& child, const ProcInfoPtr& up) {
        return LastAlarm(task_->CheckChildPrompt(child, up));
    };

    EXPECT_EQ(check(rootChild(parent), parent), 3);
    EXPECT_TRUE(
        log_.Contains("suid prompt. parent process path:/opt/parent process path:/opt/child pid:51 ppid:50"));

    EXPECT_EQ(check(rootChild(Proc(1, 0, "/sbin/init", 1)), Proc(1, 0, "/sbin/init", 1)), 0);
    EXPECT_EQ(check(rootChild(parent), Proc(52, 1, whiteProgram, 520)), 0);

    // A parent descending from a white-listed root program.
    proc_.Write(60, 0, kAllCaps);
    const ProcInfoPtr descendant = ChildOf(Proc(60, 1, whiteProgram, 600), 61, "/opt/desc", 610);
    Fork(descendant);
    EXPECT_EQ(check(rootChild(descendant), descendant), 0);
    EXPECT_TRUE(log_.Contains("ignore process 51 spawn by set uid process"));

    // A child older than its parent: the parent's pid was reused.
    ProcInfoPtr older = rootChild(parent);
    older->startTimeSec = parent->startTimeSec - 1;
    EXPECT_EQ(check(older, parent), 0);

    // Only children started in the last five minutes count.
    ProcInfoPtr stale = rootChild(parent);
    stale->startTimeSec = static_cast<long>(time(nullptr)) - 1000;
    EXPECT_EQ(check(stale, parent), 0);

    // A parent born root and never dropped is allowed root children; after its drop it is not.
    proc_.Write(70, 0, kAllCaps);
    const ProcInfoPtr bornRoot = ChildOf(Proc(70, 1, "/opt/daemon", 700), 71, "/opt/worker", 710);
    Fork(bornRoot);
    EXPECT_EQ(check(rootChild(bornRoot), bornRoot), 0);
    EXPECT_TRUE(log_.Contains("parent proc [71] /opt/worker born in root privilege"));
    UidChange(bornRoot);
    EXPECT_EQ(check(rootChild(bornRoot), bornRoot), 3);

    // A parent holding the set-uid capability may make root children.
    ProcInfoPtr capable = Copy(parent);
    capable->capSetuid = 1;
    EXPECT_EQ(check(rootChild(capable), capable), 0);

    // Legitimate set-ID programs pass unless the policy asks for them.
    EXPECT_EQ(check(rootChild(parent, suidProgram), parent), 0);
    auto groupChild = [&](const std::string& path) {
        ProcInfoPtr child = Proc(53, 50, path, ++start);
        child->egid = 0;
        return child;
    };
    EXPECT_EQ(check(groupChild("/opt/gchild"), parent), 4);
    EXPECT_TRUE(log_.Contains(
        "sgid prompt. parent process path:/opt/parent process path:/opt/gchild pid:53 ppid:50"));
    EXPECT_EQ(check(groupChild(sgidProgram), parent), 0);
    ProcInfoPtr groupCapable = Copy(parent);
    groupCapable->capSetgid = 1;
    EXPECT_EQ(check(groupChild("/opt/gchild"), groupCapable), 0);
    ProcInfoPtr rootGroupParent = Copy(parent);
    rootGroupParent->egid = 0;
    EXPECT_EQ(check(groupChild("/opt/gchild"), rootGroupParent), 0);

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
        ProcInfoPtr now = live(Copy(forked));
        now->capSetuid = 1;
        return now;
    };
    const ProcInfoPtr shell = live(Proc(10, 1, "/opt/shell", 100));
    escalated(shell, 11, "/opt/escalated", 110);
    escalated(shell, 12, whiteProgram, 120);                               // white-listed program
    escalated(Proc(99, 1, "/opt/unlisted", 990), 13, "/opt/orphan", 130);  // parent not in the table
    ProcInfoPtr unnamed = live(Proc(15, 1, "", 150));
    unnamed->name.clear();
    escalated(unnamed, 14, "/opt/a", 140);
    ProcInfoPtr unknown = live(Proc(17, 1, "/opt/unknown", 170));
    unknown->euid = 0xFFFFFFFFu;
    escalated(unknown, 16, "/opt/b", 160);
    ProcInfoPtr unforked = live(Proc(18, 10, "/opt/unforked", 180));
    unforked->capSetuid = 1;
    // A white-listed parent holding capabilities as a plain user: its child is a set-ID descendant.
    const ProcInfoPtr capped = live(Proc(20, 1, whiteProgram, 200), 1000, kAllCaps);
    escalated(capped, 19, "/opt/descendant", 190);
    engine_.procs().SetTable(table);

    task_->CheckProcess();
    std::vector<Json::Value> alerts = Alerts();
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0]["process_info"][0]["process_pid"].asInt(), 11);
    EXPECT_EQ(alerts[0]["alarm_type"].asInt(), 5);

    task_->CheckProcess();
    EXPECT_EQ(Alerts().size(), 1u);
    EXPECT_TRUE(log_.Contains("replicate message by 110/opt/escalated"));

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
    table[13] = live(Proc(13, 10, "/opt/next", 131));
    table[13]->capSetuid = 1;
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
    table[12] = Copy(table[12]);
    table[12]->capSetuid = 1;
    engine_.procs().SetTable(table);
    task_->CheckProcess();
    ASSERT_EQ(Alerts().size(), 1u);
    EXPECT_EQ(Alerts()[0]["process_info"][0]["process_pid"].asInt(), 12);
}

}  // namespace
