#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <map>
#include <tuple>
#include <utility>

#include "DetactionTestUtil.h"
#include "sdk/JsonUtils.h"
#include "support/TestEngine.h"

using namespace DetactionTest;
using TestSupport::MakeProc;

namespace {

// The process entries of the `index`th captured alert, by pid.
std::map<int, Json::Value> ReportedProcesses(TestSupport::CaptureReportTask& report, size_t index) {
    std::map<int, Json::Value> byPid;
    const auto reports = report.GetReports();
    if (index >= reports.size()) {
        return byPid;
    }
    Json::Value alert;
    SDK::JsonUtils::ParseJsonStr(reports[index].body.c_str(), reports[index].body.size(), alert);
    for (const Json::Value& item : alert["process_info"]) {
        byPid[item["process_pid"].asInt()] = item;
    }
    return byPid;
}

// Across cycles: a finding is reported when it first appears and whenever its flag
// set changes, kept silently while it stays the same, and dropped when no longer seen.
TEST(ResultsTest, FindingsAreReportedOnChangeOnly) {
    TestSupport::TestEngine env;
    Child a({"/bin/sleep", "30"});
    Child c({"/bin/sleep", "30"});
    Child low({"/bin/sleep", "30"});
    const int dead = DeadPid();
    for (int pid : {a.pid(), c.pid(), dead}) {
        env.procs().Put(MakeProc(pid, "/usr/bin/p" + std::to_string(pid)));
    }
    env.procs().Put(MakeProc(low.pid(), "/tmp/low"));

    TaskPtr task = MakeInitedTask(TaskSection(R"({"tmp": 1, "cpu": 3})"));
    std::map<int, unsigned int> flagsByPid;
    long cpuDetail = 0;
    auto check = [&](const Engine::ProcRecord& proc, unsigned int& flags, Engine::NumDetails& details) {
        if (flagsByPid.count(proc->pid) != 0) {
            flags |= flagsByPid[proc->pid];
            details[Engine::kDetailCpu] = cpuDetail;
        }
        return true;
    };
    task->GetManager().AddDetector(new FakeDetector("fake", std::make_shared<FakeDetector::Trace>(), check),
                                   1);
    auto& report = env.report();
    auto cycle = [&](std::map<int, unsigned int> flags, long detail) {
        WaitNextSecond();
        flagsByPid = std::move(flags);
        cpuDetail = detail;
        task->GetManager().Check(1, task.get());
    };

    // A dead flagged pid is not recorded; a finding under the report score is kept but not sent.
    cycle({{a.pid(), Engine::HIGHCPU}, {dead, Engine::HIGHCPU}, {low.pid(), Engine::PROC_TMP}}, 1);
    Engine::ProcDetManager::ResultMap results;
    task->GetManager().GetProcInfoMap(results);
    EXPECT_EQ(std::make_pair(results.count(dead), results.count(low.pid())), std::make_pair(0ul, 1ul));
    ASSERT_EQ(report.GetCount(), 1u);
    auto sent = ReportedProcesses(report, 0);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[a.pid()]["dt_cpu"].asString(), "1.0.0.0");

    // Same flags: nothing sent, first details kept.
    cycle({{a.pid(), Engine::HIGHCPU}, {low.pid(), Engine::PROC_TMP}}, 2);
    EXPECT_EQ(report.GetCount(), 1u);
    task->GetManager().GetProcInfoMap(results);
    EXPECT_EQ(results.at(a.pid()).numDetails.at(Engine::kDetailCpu), 1);

    // Changed flags: sent again with the new details.
    cycle({{a.pid(), Engine::HIGHCPU | Engine::PROC_TMP}, {low.pid(), Engine::PROC_TMP}}, 3);
    ASSERT_EQ(report.GetCount(), 2u);
    sent = ReportedProcesses(report, 1);
    EXPECT_EQ(std::make_tuple(sent[a.pid()]["dt_cpu"].asString(), sent[a.pid()]["rule"].asInt(),
                              sent[a.pid()]["score"].asInt()),
              std::make_tuple("3.0.0.0", 0x21, 4));

    // A no longer flagged: dropped, and the notification carries only what remains.
    cycle({{c.pid(), Engine::HIGHCPU}, {low.pid(), Engine::PROC_TMP}}, 4);
    ASSERT_EQ(report.GetCount(), 3u);
    sent = ReportedProcesses(report, 2);
    EXPECT_EQ(std::make_pair(sent.size(), sent.count(c.pid())), std::make_pair(1ul, 1ul));

    // Nothing flagged: everything dropped, nothing left to send.
    cycle({}, 5);
    task->GetManager().GetProcInfoMap(results);
    EXPECT_TRUE(results.empty());
    EXPECT_EQ(report.GetCount(), 3u);
}

class AlertTest : public ::testing::Test {
protected:
    TestSupport::TestEngine env;
    TaskPtr task = MakeInitedTask(TaskSection(R"({"tmp": 1, "cpu": 2, "deleted": 3, "hidden": -1})"));
};

// The header, the process facts and the numeric details' dotted form are checked
// on the real agent's alerts (DetactionE2ETest) and in ResultsTest, and so is a finding
// under the report score. A process that died since its check is skipped.
TEST_F(AlertTest, NothingIsSentForDeadProcesses) {
    Engine::ProcCheckInfo gone;
    gone.flags = Engine::PROC_DELETED;
    task->DetActionNotify({{DeadPid(), gone}}, nullptr);
    EXPECT_EQ(env.report().GetCount(), 0u);  // deleted scores 3: alive, it would be sent
}

TEST_F(AlertTest, ScoresAndDescriptions) {
    // CMDLINE never scores; keys left out of "score" take their default weight.
    EXPECT_EQ(task->CalcScore(0), 0u);
    EXPECT_EQ(task->CalcScore(0x1FF), 1u - 1u + 3u + 3u + 3u + 2u + 3u + 0u);
    // Without a "score" object every process scores 0.
    TaskPtr unscored = MakeInitedTask(R"({"task_condition": {"repeat_interval": 60}})");
    EXPECT_EQ(unscored->CalcScore(0x1FF), 0u);

    // Named bits in order; a bit of no finding has no name.
    for (const auto& [flags, text] : std::map<unsigned int, std::string>{
             {0, "CLEAR"},
             {0x221, "PROC_TMP, HIGHCPU, "},
             {0x1FF,
              "PROC_TMP, PROC_HIDDEN, PROC_DELETED, LOGIN_OTHERS, CONNECT_BIP, HIGHCPU, STRINGS, CMDLINE, "
              "PACKER, "}}) {
        std::string desc = "old";
        Engine::ProcDetManager::MakeDesc(flags, desc);
        EXPECT_EQ(desc, text) << flags;
    }
}

}  // namespace
