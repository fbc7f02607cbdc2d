// The real agent binary with a test module: policies in, alerts out, reloads, stop; and with the
// detection module in a pid namespace of its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/AgentRunner.h"
#include "support/FileText.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

using TestSupport::WaitFor;  // its default deadline, 30 s

const std::string kGood = std::string(CORVANE_BUILD_DIR) + "/tests/modules/libagent_test_module.so";
const long kDeadlineMs = 30000;

std::string Policy(const std::string& value, const std::string& sentLog, int burst = 200) {
    return R"({"enabled": true, "value": ")" + value + R"(", "burst": )" + std::to_string(burst) +
           R"(, "sent_log": ")" + sentLog + R"("})";
}

// "<sent> <refused>" as the test module last wrote them; false before its first run.
bool ReadSent(const std::string& path, long& sent, long& refused) {
    std::ifstream in(path);
    return static_cast<bool>(in >> sent >> refused);
}

// Every line of `text` is an alert, and their "seq"s are 1..sent, each once.
void ExpectAllSeqsOnce(const std::string& text, long sent) {
    std::set<long> seen;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        Json::Value alert;
        ASSERT_TRUE(Json::Reader().parse(line, alert)) << line;
        EXPECT_TRUE(seen.insert(alert["seq"].asInt64()).second) << "duplicate " << alert["seq"];
    }
    ASSERT_EQ(seen.size(), static_cast<size_t>(sent));
    EXPECT_EQ(*seen.begin(), 1);
    EXPECT_EQ(*seen.rbegin(), sent);
}

size_t CountValue(const TestSupport::AgentRunner& agent, const std::string& value) {
    size_t count = 0;
    for (const Json::Value& alert : agent.ReadAlerts()) {
        count += alert["test_value"].asString() == value ? 1 : 0;
    }
    return count;
}

// The TLS, Kafka and HTTP libraries an agent has mapped; an agent writing only
// to its alert file needs none of them.
std::string MappedSinkLibraries(pid_t pid) {
    const std::string maps = TestSupport::ReadText("/proc/" + std::to_string(pid) + "/maps");
    std::string names;
    for (const char* name : {"libcrypto.so", "libssl.so", "librdkafka.so", "libcurl.so"}) {
        names += maps.find(name) != std::string::npos ? std::string(name) + " " : "";
    }
    return names;
}

}  // namespace

TEST(AgentEndToEnd, DeliversReloadsKeepsGoodPolicyOverBadTextAndLosesNothingOnStop) {
    TestSupport::AgentRunner agent("agent");
    const std::string sentLog = agent.prefix() + "/sent.txt";
    agent.WritePolicy("90001", "agent_test_feature", Policy("first", sentLog));
    ASSERT_TRUE(agent.Start({}, {kGood}));
    auto first = [](const Json::Value& alert) { return alert["test_value"].asString() == "first"; };
    ASSERT_TRUE(agent.WaitForAlert(first, kDeadlineMs)) << agent.ReadLog();
    EXPECT_EQ(MappedSinkLibraries(agent.pid()), "");

    agent.WritePolicy("90001", "agent_test_feature", Policy("second", sentLog));
    agent.Reload();
    ASSERT_TRUE(WaitFor([&] { return CountValue(agent, "second") > 0; })) << agent.ReadLog();

    // A policy that is no JSON (nested deeper than jsoncpp takes without throwing) is refused, and
    // the good one stays in force. (A FIFO in its place is the command-line test's: --check would hang.)
    agent.WritePolicy("90001", "agent_test_feature", std::string(300, '[') + std::string(300, ']'));
    agent.Reload();
    ASSERT_TRUE(agent.WaitForLog(
        agent.PolicyDir() + "/90001/agent_test_feature.json: error: -: not valid JSON", kDeadlineMs))
        << agent.ReadLog();
    const size_t before = CountValue(agent, "second");
    ASSERT_TRUE(WaitFor([&] { return CountValue(agent, "second") > before; })) << "the good policy stopped";

    // A removed file disables the feature: once the removal is delivered the task is gone,
    // and its count file final.
    agent.RemovePolicy("90001", "agent_test_feature");
    agent.Reload();
    ASSERT_TRUE(agent.WaitForLog("agent_test_feature.json removed", kDeadlineMs)) << agent.ReadLog();
    const std::string counts = TestSupport::ReadText(sentLog);
    ASSERT_EQ(agent.Stop(kDeadlineMs), 0) << agent.ReadLog();
    EXPECT_EQ(TestSupport::ReadText(sentLog), counts)
        << "the task sent reports after its policy file was removed";
    long sent = 0;
    long refused = -1;
    ASSERT_TRUE(ReadSent(sentLog, sent, refused));
    EXPECT_EQ(refused, 0);
    ExpectAllSeqsOnce(TestSupport::ReadText(agent.AlertsPath()), sent);

    // A file refused unread (a 5 MiB one) fails a --once run too.
    agent.WritePolicy("90001", "agent_test_feature", std::string(5 << 20, ' ') + "{}");
    ASSERT_TRUE(agent.Start({"--once"}, {kGood}));
    ASSERT_TRUE(agent.WaitForLog("--once: every plug-in task has checked once", kDeadlineMs))
        << agent.ReadLog();
    EXPECT_EQ(agent.Stop(kDeadlineMs), 1);
    // Stopped at once, the report task still ran its stop: nothing was left to keep.
    EXPECT_EQ(agent.CountInLog("are kept in"), 0u) << agent.ReadLog();
}

TEST(AgentEndToEnd, StopWritesEveryAlertQueuedBehindAStalledSink) {
    TestSupport::AgentRunner agent("agent-stall");
    const std::string sentLog = agent.prefix() + "/sent.txt";
    // A FIFO nobody reads yet: the report task stalls on it and the alerts pile up in its queue.
    ASSERT_EQ(::mkfifo(agent.AlertsPath().c_str(), 0600), 0);
    const int reader = ::open(agent.AlertsPath().c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    agent.WritePolicy("90001", "agent_test_feature", Policy("stall", sentLog, 10000));
    ASSERT_TRUE(agent.Start({}, {kGood}));
    long sent = 0;
    long refused = 0;
    // Far more than a pipe holds: most of these are still queued when the agent is told to stop.
    ASSERT_TRUE(WaitFor([&] { return ReadSent(sentLog, sent, refused) && sent >= 20000; }))
        << agent.ReadLog();
    EXPECT_EQ(refused, 0) << "senders were held up by the stalled sink";

    ::fcntl(reader, F_SETFL, 0);
    std::string text;
    std::thread drain([&] {
        char buffer[65536];
        for (ssize_t got; (got = ::read(reader, buffer, sizeof(buffer))) > 0;) {
            text.append(buffer, static_cast<size_t>(got));
        }
    });
    const int status = agent.Stop(kDeadlineMs);
    drain.join();
    ::close(reader);
    ASSERT_EQ(status, 0) << agent.ReadLog();

    ASSERT_TRUE(ReadSent(sentLog, sent, refused));
    ExpectAllSeqsOnce(text, sent);
}

// An agent in a pid namespace of its own, as in a container, reads a /proc whose
// pids the kernel's process connector does not name. A process started there after
// the agent's first cycle must still be reported within a few cycles, not at the
// next full rescan ten minutes later.
TEST(ContainerE2E, AgentInItsOwnPidNamespaceReportsAProcessStartedAfterIt) {
    ASSERT_EQ(geteuid(), 0u) << "needs root";
    const long deadlineMs = 60000;  // a few detection cycles
    const TestSupport::TempDir dir("container");
    chmod(dir.path().c_str(), 0755);
    const std::string program = dir.path() + "/svc-sleep";
    std::filesystem::copy_file("/bin/sleep", program);
    const std::string go = dir.path() + "/go";

    TestSupport::AgentRunner agent("container");
    agent.WritePolicy("10001", "proc_detaction_feature",
                      R"({"enabled": true, "content": {"detaction_full_task": {"task_condition":
                          {"start_time": 0, "repeat_interval": 2}, "report_score": 1, "score": {"tmp": 1}}}})");
    // The agent becomes the namespace's first process; the program starts beside it
    // once the test says so.
    agent.SetLauncher(
        {"unshare", "--pid", "--fork", "--mount-proc", "--kill-child=SIGTERM", "sh", "-c",
         "(while [ ! -e " + go + " ]; do sleep 0.1; done; exec " + program + " 600) & exec \"$@\"", "sh"});
    ASSERT_TRUE(agent.Start());
    ASSERT_TRUE(
        agent.WaitForLog("of its own, and the kernel process connector reports the host's pids", deadlineMs))
        << agent.ReadLog();
    ASSERT_TRUE(agent.WaitForLog("ProcDetActionFullTask run", deadlineMs)) << agent.ReadLog();
    std::ofstream(go) << "go\n";

    const bool reported = agent.WaitForAlert(
        [&](const Json::Value& alert) {
            for (const Json::Value& entry : alert["process_info"]) {
                if (entry["process_path"].asString() == program) {
                    return true;
                }
            }
            return false;
        },
        deadlineMs);
    EXPECT_TRUE(reported) << agent.ReadLog();
    agent.Stop(2000);
}
