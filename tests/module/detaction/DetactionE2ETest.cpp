#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <regex>
#include <tuple>

#include "module/ModuleTestUtil.h"
#include "support/AgentRunner.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

using ModuleTest::RealPath;
using TestSupport::AgentRunner;
using TestSupport::WaitFor;
using Child = TestSupport::ChildProcess;

namespace {

constexpr long kTimeoutMs = 60000;
// Finding bits as the alert's "rule" carries them.
constexpr int kProcTmp = 0x001;
constexpr int kProcDeleted = 0x004;
constexpr int kHighCpu = 0x020;

std::string Policy(const std::string& score, int cpuWarn, const std::string& ignored) {
    return R"({"enabled": true, "content": {"detaction_full_task": {
        "task_condition": {"start_time": 0, "repeat_interval": 2}, "report_score": 3,
        "score": )" +
           score + R"(, "cpu_usage_warn": )" + std::to_string(cpuWarn) + R"(,
        "ignore_filepath": [")" +
           ignored + R"("]}}})";
}

// A copy of /bin/sleep under /tmp.
std::string CopySleep(const TestSupport::TempDir& dir, const std::string& name) {
    const std::string path = dir.path() + "/" + name;
    std::filesystem::copy_file("/bin/sleep", path);
    return path;
}

Json::Value WaitForEntry(const AgentRunner& agent, int pid) {
    return agent.WaitForFinding("procdet_0001", pid, 0, kTimeoutMs).entry;
}

// Programs under /tmp, deleted and busy ones are reported, with the alert's header
// and the facts of process and parent; findings that stay the same are not sent
// again, and ignored paths never.
TEST(DetactionE2ETest, TmpDeletedAndBusyProgramsAreReportedOnceAndIgnoredPathsNever) {
    const TestSupport::TempDir dir("detaction");
    const std::string program = CopySleep(dir, "tmp");
    const std::string deleted = CopySleep(dir, "deleted");
    const std::string ignored = CopySleep(dir, "ignored");
    AgentRunner agent("detaction");
    agent.WritePolicy("10001", "proc_detaction_feature",
                      Policy(R"({"tmp": 3, "hidden": 1, "deleted": 1, "cpu": 3})", 500, ignored));
    Child child({program, "300"});
    Child ignoredChild({ignored, "300"});
    Child deletedChild({deleted, "300"});
    const Child busy([](const std::function<void()>& ready) {
        ready();
        for (volatile unsigned long spin = 0;; spin = spin + 1) {
        }
    });
    // Deleted before the agent starts, so no cycle sees the file still in place.
    const std::string deletedHash = ModuleTest::Sha256OfFile(deleted);
    ASSERT_TRUE(
        WaitFor([&] { return RealPath("/proc/" + std::to_string(deletedChild.pid()) + "/exe") == deleted; }));
    std::filesystem::remove(deleted);
    ASSERT_TRUE(agent.Start());

    const long before = static_cast<long>(time(nullptr));
    const AgentRunner::Finding finding = agent.WaitForFinding("procdet_0001", child.pid(), 0, kTimeoutMs);
    Json::Value entry = finding.entry;
    ASSERT_FALSE(entry.isNull()) << agent.ReadLog();
    const Json::Value& alert = finding.alert;
    Json::Value header;
    ASSERT_TRUE(Json::Reader().parse(R"({"event_classid": "procdet_0001", "event_name": "detaction",
        "event_category": 3000, "event_type": 3007, "severity": 2, "event_count": 1, "attack_phase": 6,
        "attack_tag": 4, "confidence": 70, "detect_module": "proc_det_module"})",
                                     header));
    for (const std::string& key : header.getMemberNames()) {
        EXPECT_EQ(alert[key], header[key]) << key;
    }
    EXPECT_EQ(alert["event_id"].asString().size(), 36u);
    ASSERT_TRUE(alert["occur_time"].isIntegral());
    EXPECT_GE(alert["occur_time"].asInt64(), before);
    EXPECT_LE(alert["occur_time"].asInt64(), static_cast<long>(time(nullptr)));
    EXPECT_EQ(std::make_tuple(entry["process_path"].asString(), entry["process_hash"].asString(),
                              entry["process_cmdline"].asString(), entry["parent_process_pid"].asInt(),
                              entry["parent_process_path"].asString(), entry["rule"].asInt(),
                              entry["score"].asInt()),
              std::make_tuple(program, ModuleTest::Sha256OfFile(program), program + " 300", getpid(),
                              RealPath("/proc/self/exe"), kProcTmp, 3));

    entry = WaitForEntry(agent, deletedChild.pid());
    EXPECT_EQ(std::make_tuple(entry["process_path"].asString(), entry["process_hash"].asString(),
                              entry["mode"].asUInt(), entry["rule"].asInt(), entry["score"].asInt()),
              std::make_tuple("/proc/" + std::to_string(deletedChild.pid()) + "/exe", deletedHash, 0755u,
                              kProcTmp | kProcDeleted, 4));

    entry = WaitForEntry(agent, busy.pid());
    ASSERT_FALSE(entry.isNull());
    EXPECT_EQ(entry["rule"].asInt() & kHighCpu, kHighCpu);
    // The usage travels as dotted text, its low byte first.
    std::smatch parts;
    const std::string dotted = entry["dt_cpu"].asString();
    ASSERT_TRUE(std::regex_match(dotted, parts, std::regex(R"((\d+)\.(\d+)\.(\d+)\.(\d+))"))) << dotted;
    const long usage = std::stol(parts[1]) | std::stol(parts[2]) << 8 | std::stol(parts[3]) << 16 |
                       std::stol(parts[4]) << 24;
    EXPECT_GT(usage, 500);

    // Over the next cycles the unchanged findings are not sent again.
    const size_t sentBefore = agent.Findings("procdet_0001", child.pid()).size();
    ASSERT_TRUE(agent.WaitForMoreLog("ProcDetActionFullTask run", 4, kTimeoutMs));
    EXPECT_EQ(agent.CountInLog("DetectNEW RESULT " + std::to_string(ignoredChild.pid()) + " "), 0u);
    EXPECT_EQ(agent.CountInLog("DetectNEW RESULT " + std::to_string(child.pid()) + " "), 1u);
    EXPECT_LT(agent.Findings("procdet_0001", child.pid()).size(), sentBefore + 4);
    EXPECT_EQ(agent.Findings("procdet_0001", ignoredChild.pid()).size(), 0u);
    agent.Stop();
}

// A program that deletes its own file raises no kernel event: once seen in
// place, it is reported deleted by one of the two cycles that follow.
TEST(DetactionE2ETest, ProgramDeletingItselfIsReportedWithinTwoCycles) {
    const TestSupport::TempDir dir("detaction");
    const std::string program = dir.path() + "/selfdel";
    std::filesystem::copy_file(DETROOT_HELPER, program);
    AgentRunner agent("detaction_selfdel");
    agent.WriteConfig(R"({"collect": {"procs_refresh_seconds": 1}})");
    agent.WritePolicy("10001", "proc_detaction_feature",
                      Policy(R"({"tmp": 1, "deleted": 3})", 1000000, dir.path() + "/none"));
    // Started after the table's first rescans, so that events alone bring it in.
    ASSERT_TRUE(agent.Start() && agent.WaitForMoreLog("CHECK FINISHED", 2, kTimeoutMs));
    Child child({program, dir.path(), "waitfile:go", "unlinkexe"});
    const std::string pid = std::to_string(child.pid());
    ASSERT_TRUE(agent.WaitForLog("DetectNEW RESULT " + pid + " " + program + "=>1 ", kTimeoutMs))
        << agent.ReadLog();
    const size_t cycles = agent.CountInLog("CHECK FINISHED");
    std::ofstream(dir.path() + "/go") << "go\n";

    const Json::Value entry =
        agent.WaitForFinding("procdet_0001", child.pid(), kProcDeleted, kTimeoutMs).entry;
    ASSERT_FALSE(entry.isNull()) << agent.ReadLog();
    EXPECT_EQ(entry["rule"].asInt(), kProcTmp | kProcDeleted);
    EXPECT_LE(agent.CountInLogBefore("CHECK FINISHED",
                                     "DetectNEW RESULT " + pid + " " + program + " (deleted)=>5 "),
              cycles + 1);
    agent.Stop();
}

}  // namespace
