// The real agent's spool against a hostile local user, a second agent, a one-shot run beside the
// service, and a collector that refuses one alert for good.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "support/AgentRunner.h"
#include "support/FileText.h"
#include "support/HttpTestServer.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

using TestSupport::ReadText;
const std::string kGood = std::string(CORVANE_BUILD_DIR) + "/tests/modules/libagent_test_module.so";
const long kDeadlineMs = 60000;

std::string Policy(const std::string& value, int burst, const std::string& extra = "") {
    return R"({"enabled": true, "value": ")" + value + R"(", "burst": )" + std::to_string(burst) + extra +
           "}";
}

// The "seq" of every alert line in `text` with the given test value.
std::set<long> Seqs(const std::string& text, const std::string& value) {
    std::set<long> seqs;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        Json::Value alert;
        if (Json::Reader().parse(line, alert) && alert.isObject() &&
            alert["test_value"].asString() == value) {
            seqs.insert(alert["seq"].asInt64());
        }
    }
    return seqs;
}

// 1..last, all of them.
bool FromOneTo(const std::set<long>& seqs, long last) {
    return seqs.size() >= static_cast<size_t>(last) && *seqs.begin() == 1 &&
           *seqs.rbegin() == static_cast<long>(seqs.size());
}

// The agent run to its end (stopped after two minutes) with `args`: exit status and its output.
std::pair<int, std::string> RunAgent(const std::string& args) {
    std::string out;
    FILE* pipe = ::popen(
        ("timeout 120 " + TestSupport::AgentRunner::AgentBinary() + " " + args + " 2>&1").c_str(), "r");
    char buffer[4096];
    for (size_t got = 0; pipe != nullptr && (got = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
        out.append(buffer, got);
    }
    const int status = pipe != nullptr ? ::pclose(pipe) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

}  // namespace

TEST(AlertSpoolEndToEnd, AnotherUsersSpoolIsNeverWrittenAndItsAlertsWaitInMemoryUntilItIsFixed) {
    TestSupport::AgentRunner agent("spool-owner");
    const std::string spool = agent.prefix() + "/var/spool";
    const std::string sent = agent.prefix() + "/log/sent";
    std::filesystem::create_directories(spool);
    ASSERT_EQ(::chown(spool.c_str(), 65534, 65534), 0);
    agent.WritePolicy("90001", "agent_test_feature", Policy("held", 5, R"(, "sent_log": ")" + sent + "\""));
    ASSERT_TRUE(agent.Start({}, {kGood}));
    EXPECT_TRUE(agent.WaitForLog("alert spool refused: " + spool + ": owned by uid 65534", kDeadlineMs));
    ASSERT_TRUE(TestSupport::WaitFor([&] { return std::atol(ReadText(sent).c_str()) >= 20; }, kDeadlineMs));
    EXPECT_TRUE(std::filesystem::is_empty(spool)) << "the user's directory was written";
    EXPECT_TRUE(Seqs(ReadText(agent.AlertsPath()), "held").empty());

    ASSERT_EQ(::chown(spool.c_str(), 0, 0), 0);
    EXPECT_TRUE(TestSupport::WaitFor(
        [&] { return FromOneTo(Seqs(ReadText(agent.AlertsPath()), "held"), 20); }, kDeadlineMs))
        << agent.ReadLog();
    EXPECT_EQ(agent.Stop(), 0);
}

TEST(AlertSpoolEndToEnd, ASecondAgentOnTheSameSpoolRefusesToStartAndOnceLeavesTheServiceAlone) {
    TestSupport::AgentRunner agent("spool-lock");
    const std::string copy = agent.prefix() + "/log/copy.json";
    std::ofstream(agent.prefix() + "/conf/agent.json") << R"({"metrics": {"listen": "127.0.0.1:0"},
              "alerts": {"sinks": [{"type": "file", "name": "copy", "path": "log/copy.json"}]}})";
    agent.WritePolicy("90001", "agent_test_feature", Policy("service", 1));
    ASSERT_TRUE(agent.Start({}, {kGood}));
    ASSERT_TRUE(agent.WaitForLog("metrics served on port", kDeadlineMs)) << agent.ReadLog();
    ASSERT_TRUE(
        agent.WaitForAlert([](const Json::Value& alert) { return alert["seq"].asInt() > 0; }, kDeadlineMs));

    const std::string common = "--prefix " + agent.prefix() + " --module " + kGood + " ";
    const auto second = RunAgent(common + "--policy-dir " + agent.PolicyDir());
    EXPECT_EQ(second.first, 2);
    EXPECT_NE(
        second.second.find("is in use by another corvane-agent (pid " + std::to_string(agent.pid()) + ")"),
        std::string::npos)
        << second.second;

    // A one-shot run with policies of its own, on the service's settings and prefix.
    TestSupport::TempDir own("once");
    own.Write("policies/90001/agent_test_feature.json", Policy("once", 3));
    const std::string onceAlerts = own.path() + "/alerts.json";
    const auto once =
        RunAgent(common + "--once --policy-dir " + own.path() + "/policies --alerts " + onceAlerts);
    EXPECT_EQ(once.first, 0) << once.second;
    EXPECT_EQ(Seqs(ReadText(onceAlerts), "once").size(), 3u);
    std::string service = ReadText(agent.AlertsPath()) + ReadText(copy);
    for (const auto& entry : std::filesystem::directory_iterator(agent.prefix() + "/var/spool")) {
        service += ReadText(entry.path());
    }
    EXPECT_TRUE(Seqs(service, "once").empty()) << "the one-shot run wrote to the service's spool or sinks";
    EXPECT_EQ(agent.CountInLog("metrics served on port"), 1u) << "the one-shot run bound a metrics port";
    const size_t before = Seqs(ReadText(copy), "service").size();
    EXPECT_TRUE(TestSupport::WaitFor([&] { return Seqs(ReadText(copy), "service").size() > before + 2; },
                                     kDeadlineMs));
    EXPECT_EQ(agent.Stop(), 0);
}

TEST(AlertSpoolEndToEnd, AWebhookRefusingOneAlertFor400GetsItDeadLetteredAndTakesTheRest) {
    TestSupport::AgentRunner agent("deadletter");
    TestSupport::HttpTestServer server;
    server.Refuse("/hook", 400, "\"seq\":5,");
    std::ofstream(agent.prefix() + "/conf/agent.json")
        << R"({"alerts": {"retry_seconds": 1, "retry_max_seconds": 2, "sinks": [{"type": "webhook", "url": ")"
        << server.Url("/hook") << R"(", "batch": 50}]}})";
    agent.WritePolicy("90001", "agent_test_feature", Policy("hook", 5));
    ASSERT_TRUE(agent.Start({}, {kGood}));
    std::set<long> posted;
    EXPECT_TRUE(TestSupport::WaitFor(
        [&] {
            posted.clear();
            for (const std::string& body : server.Posted("/hook")) {
                const std::set<long> seqs = Seqs(body, "hook");
                posted.insert(seqs.begin(), seqs.end());
            }
            return posted.size() >= 40;
        },
        kDeadlineMs))
        << agent.ReadLog();
    EXPECT_EQ(posted.count(5), 0u);
    EXPECT_EQ(*posted.begin(), 1);
    EXPECT_EQ(static_cast<long>(posted.size()), *posted.rbegin() - 1) << "an alert other than 5 is missing";
    const std::string deadLetter = agent.prefix() + "/var/spool/webhook.dead";
    EXPECT_EQ(Seqs(ReadText(deadLetter), "hook"), std::set<long>{5});
    struct stat info {};
    ASSERT_EQ(::stat(deadLetter.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(agent.CountInLog("refused an alert 3 times for good (HTTP 400)"), 1u);
    EXPECT_EQ(agent.Stop(), 0);
}
