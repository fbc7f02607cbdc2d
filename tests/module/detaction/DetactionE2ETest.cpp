#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "module/ModuleTestUtil.h"
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

std::vector<Json::Value> EntriesFor(const AgentRunner& agent, int pid) {
    return TestSupport::FindProcessEntries(
        agent.ReadAlerts(), "procdet_0001",
        [pid](const Json::Value& item) { return item["process_pid"].asInt() == pid; });
}

// The first alert entry naming `pid`; null when none came in time.
Json::Value WaitForEntry(const AgentRunner& agent, int pid) {
    std::vector<Json::Value> entries;
    WaitFor([&] { return !(entries = EntriesFor(agent, pid)).empty(); }, kTimeoutMs);
    return entries.empty() ? Json::Value() : entries.front();
}

TEST(DetactionE2ETest, TmpAndDeletedProgramsAreReportedOnceAndIgnoredPathsNever) {
    const TestSupport::TempDir dir("detaction");
    const std::string program = CopySleep(dir, "tmp");
    const std::string deleted = CopySleep(dir, "deleted");
    const std::string ignored = CopySleep(dir, "ignored");
    AgentRunner agent("detaction");
    agent.WritePolicy("10001", "proc_detaction_feature",
                      Policy(R"({"tmp": 3, "hidden": 1, "deleted": 1, "cpu": 0})", 1000000, ignored));
    Child child({program, "300"});
    Child ignoredChild({ignored, "300"});
    Child deletedChild({deleted, "300"});
    // Deleted before the agent starts, so no cycle sees the file still in place.
    const std::string deletedHash = ModuleTest::Sha256OfFile(deleted);
    ASSERT_TRUE(
        WaitFor([&] { return RealPath("/proc/" + std::to_string(deletedChild.pid()) + "/exe") == deleted; }));
    std::filesystem::remove(deleted);
    ASSERT_TRUE(agent.Start());

    Json::Value entry = WaitForEntry(agent, child.pid());
    ASSERT_FALSE(entry.isNull()) << agent.ReadLog();
    EXPECT_EQ(entry["process_path"].asString(), program);
    EXPECT_EQ(entry["process_hash"].asString(), ModuleTest::Sha256OfFile(program));
    EXPECT_EQ(entry["rule"].asInt(), kProcTmp);
    EXPECT_EQ(entry["score"].asInt(), 3);

    entry = WaitForEntry(agent, deletedChild.pid());
    ASSERT_FALSE(entry.isNull());
    EXPECT_EQ(entry["process_path"].asString(), "/proc/" + std::to_string(deletedChild.pid()) + "/exe");
    EXPECT_EQ(entry["process_hash"].asString(), deletedHash);
    EXPECT_EQ(entry["mode"].asUInt(), 0755u);
    EXPECT_EQ(entry["rule"].asInt(), kProcTmp | kProcDeleted);
    EXPECT_EQ(entry["score"].asInt(), 4);

    // Over the next cycles the unchanged findings are not sent again.
    const size_t sentBefore = EntriesFor(agent, child.pid()).size();
    ASSERT_TRUE(ModuleTest::WaitForMoreInLog(agent, "ProcDetActionFullTask run", 4, kTimeoutMs));
    const std::string log = agent.ReadLog();
    EXPECT_EQ(ModuleTest::CountOf(log, "DetectNEW RESULT " + std::to_string(ignoredChild.pid()) + " "), 0u);
    EXPECT_EQ(ModuleTest::CountOf(log, "DetectNEW RESULT " + std::to_string(child.pid()) + " "), 1u);
    EXPECT_LT(EntriesFor(agent, child.pid()).size(), sentBefore + 4);
    EXPECT_TRUE(EntriesFor(agent, ignoredChild.pid()).empty());
    agent.Stop();
}

TEST(DetactionE2ETest, BusyProcessIsFlaggedHighCpu) {
    AgentRunner agent("detaction-cpu");
    agent.WritePolicy("10001", "proc_detaction_feature", Policy(R"({"tmp": 0, "cpu": 3})", 3000, "/none"));
    const Child busy([](const std::function<void()>& ready) {
        ready();
        for (volatile unsigned long spin = 0;; spin = spin + 1) {
        }
    });
    ASSERT_TRUE(agent.Start());

    const Json::Value entry = WaitForEntry(agent, busy.pid());
    ASSERT_FALSE(entry.isNull()) << agent.ReadLog();
    EXPECT_EQ(entry["rule"].asInt() & kHighCpu, kHighCpu);
    // The usage travels as dotted text, its low byte first.
    std::smatch parts;
    const std::string dotted = entry["dt_cpu"].asString();
    ASSERT_TRUE(std::regex_match(dotted, parts, std::regex(R"((\d+)\.(\d+)\.(\d+)\.(\d+))"))) << dotted;
    const long usage = std::stol(parts[1]) | std::stol(parts[2]) << 8 | std::stol(parts[3]) << 16 |
                       std::stol(parts[4]) << 24;
    EXPECT_GT(usage, 3000);
    agent.Stop();
}

}  // namespace
