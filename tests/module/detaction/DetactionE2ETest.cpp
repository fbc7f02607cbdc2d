#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "ChildProcess.h"
#include "support/AgentRunner.h"

using namespace DetactionTest;
using TestSupport::AgentRunner;

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

// A copy of /bin/sleep under /tmp, removed with the object.
struct TmpProgram {
    explicit TmpProgram(const std::string& tag)
        : path("/tmp/detaction-e2e-" + tag + "-" + std::to_string(getpid())) {
        std::filesystem::copy_file("/bin/sleep", path, std::filesystem::copy_options::overwrite_existing);
    }
    ~TmpProgram() { std::filesystem::remove(path); }
    std::string path;
};

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

size_t CountCycles(const AgentRunner& agent) {
    const std::string log = agent.ReadLog();
    size_t count = 0;
    for (size_t pos = log.find("ProcDetActionFullTask run"); pos != std::string::npos;
         pos = log.find("ProcDetActionFullTask run", pos + 1)) {
        ++count;
    }
    return count;
}

TEST(DetactionE2ETest, TmpAndDeletedProgramsAreReportedOnceAndIgnoredPathsNever) {
    TmpProgram program("tmp");
    TmpProgram deleted("deleted");
    TmpProgram ignored("ignored");
    AgentRunner agent("detaction");
    agent.WritePolicy("10001", "proc_detaction_feature",
                      Policy(R"({"tmp": 3, "hidden": 1, "deleted": 1, "cpu": 0})", 1000000, ignored.path));
    Child child({program.path, "300"});
    Child ignoredChild({ignored.path, "300"});
    Child deletedChild({deleted.path, "300"});
    // Deleted before the agent starts, so no cycle sees the file still in place.
    const std::string deletedHash = Sha256Sum(deleted.path);
    ASSERT_TRUE(WaitFor(
        [&] { return RealPath("/proc/" + std::to_string(deletedChild.pid()) + "/exe") == deleted.path; }));
    std::filesystem::remove(deleted.path);
    ASSERT_TRUE(agent.Start());

    Json::Value entry = WaitForEntry(agent, child.pid());
    ASSERT_FALSE(entry.isNull()) << agent.ReadLog();
    EXPECT_EQ(entry["process_path"].asString(), program.path);
    EXPECT_EQ(entry["process_hash"].asString(), Sha256Sum(program.path));
    EXPECT_EQ(entry["mode"].asUInt(), 0755u);
    EXPECT_EQ(entry["process_cmdline"].asString(), program.path + " 300");
    EXPECT_EQ(entry["parent_process_pid"].asInt(), getpid());
    EXPECT_EQ(entry["parent_process_path"].asString(), RealPath("/proc/self/exe"));
    EXPECT_EQ(entry["rule"].asInt(), kProcTmp);
    EXPECT_EQ(entry["score"].asInt(), 3);

    entry = WaitForEntry(agent, deletedChild.pid());
    ASSERT_FALSE(entry.isNull());
    EXPECT_EQ(entry["process_path"].asString(), "/proc/" + std::to_string(deletedChild.pid()) + "/exe");
    EXPECT_EQ(entry["process_hash"].asString(), deletedHash);
    EXPECT_EQ(entry["rule"].asInt(), kProcTmp | kProcDeleted);
    EXPECT_EQ(entry["score"].asInt(), 4);

    // Over the next cycles the unchanged findings are not sent again.
    const size_t sentBefore = EntriesFor(agent, child.pid()).size();
    const size_t cycles = CountCycles(agent);
    ASSERT_TRUE(WaitFor([&] { return CountCycles(agent) >= cycles + 4; }, kTimeoutMs));
    EXPECT_EQ(agent.ReadLog().find("DetectNEW RESULT " + std::to_string(ignoredChild.pid()) + " "),
              std::string::npos);
    const std::string log = agent.ReadLog();
    const std::string firstResult = "DetectNEW RESULT " + std::to_string(child.pid()) + " ";
    const size_t firstAt = log.find(firstResult);
    ASSERT_NE(firstAt, std::string::npos);
    EXPECT_EQ(log.find(firstResult, firstAt + 1), std::string::npos);
    EXPECT_LT(EntriesFor(agent, child.pid()).size(), sentBefore + 4);
    EXPECT_TRUE(EntriesFor(agent, ignoredChild.pid()).empty());
    agent.Stop();
}

TEST(DetactionE2ETest, BusyProcessIsFlaggedHighCpu) {
    AgentRunner agent("detaction-cpu");
    agent.WritePolicy("10001", "proc_detaction_feature", Policy(R"({"tmp": 0, "cpu": 3})", 3000, "/none"));
    const pid_t busy = fork();
    ASSERT_GE(busy, 0);
    if (busy == 0) {
        for (volatile unsigned long spin = 0;; spin = spin + 1) {
        }
    }
    struct Reaper {
        pid_t pid;
        ~Reaper() {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    } reaper{busy};
    ASSERT_TRUE(agent.Start());

    const Json::Value entry = WaitForEntry(agent, busy);
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
