// The agent as a supervised service: its Prometheus endpoint scraped over HTTP,
// and its systemd watchdog heartbeat read from a notification socket.
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "BuildInfo.h"
#include "support/AgentRunner.h"
#include "support/FileText.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

using TestSupport::AgentRunner;
const long kDeadlineMs = 30000;

// Series ("name{labels}") to value, from the Prometheus text format; fails the
// test on a line that is neither a comment nor a sample.
std::map<std::string, double> Scrape(int port) {
    Poco::Net::HTTPClientSession session("127.0.0.1", static_cast<Poco::UInt16>(port));
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, "/metrics");
    session.sendRequest(request);
    Poco::Net::HTTPResponse response;
    std::istream& body = session.receiveResponse(response);
    EXPECT_EQ(response.getStatus(), Poco::Net::HTTPResponse::HTTP_OK);
    std::string text;
    Poco::StreamCopier::copyToString(body, text);
    std::map<std::string, double> series;
    const std::regex sample(R"(^([a-zA-Z_:][a-zA-Z0-9_:]*(\{.*\})?) ([-+0-9.eE]+|NaN|Nan|[+-]Inf)$)");
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::smatch parts;
        if (line.empty() || line[0] == '#') {
            continue;
        }
        EXPECT_TRUE(std::regex_match(line, parts, sample)) << line;
        if (!parts.empty()) {
            series[parts[1]] = std::stod(parts[3]);
        }
    }
    return series;
}

TEST(AgentService, MetricsAreServedAndMoveAsTheAgentWorks) {
    AgentRunner agent("metrics");
    agent.WriteConfig(R"({"metrics": {"listen": "127.0.0.1:0"}})");
    agent.WritePolicy("10001", "proc_detaction_feature",
                      R"({"enabled": true, "content": {"detaction_full_task": {
        "task_condition": {"repeat_interval": 1}, "score": {"tmp": 1}}}})");
    ASSERT_TRUE(agent.Start());
    const std::string served = "metrics served on port ";
    ASSERT_TRUE(agent.WaitForLog(served, kDeadlineMs)) << agent.ReadLog();
    const std::string log = agent.ReadLog();
    const int port = std::atoi(log.c_str() + log.find(served) + served.size());

    const std::string cycles = R"(corvane_task_runs_total{task="detaction_full_task"})";
    std::map<std::string, double> first;
    ASSERT_TRUE(TestSupport::WaitFor([&] { return (first = Scrape(port))[cycles] >= 1; }, kDeadlineMs));
    EXPECT_GE(first["corvane_processes_checked_total"], 1);
    EXPECT_EQ(first["corvane_policy_refreshes_total"], 1);
    for (const char* present :
         {"corvane_report_alerts_written_total", R"(corvane_sink_alerts_delivered_total{sink="file"})",
          "corvane_spool_bytes", "corvane_subscriber_backlog_messages",
          R"(corvane_task_run_duration_seconds_bucket{task="detaction_full_task",le="+Inf"})",
          R"(corvane_build_info{revision=")" CORVANE_REVISION R"(",version=")" CORVANE_VERSION R"("})"}) {
        EXPECT_EQ(first.count(present), 1u) << present;
    }
    // Series an alerting rule takes increase() of are there, at 0, before their first event.
    for (const char* zero :
         {"corvane_policy_refusals_total", "corvane_module_load_errors_total",
          "corvane_strings_cache_hits_total", R"(corvane_alerts_sent_total{event="procdet_0002"})",
          R"(corvane_blacklist_downloads_total{result="failed"})"}) {
        EXPECT_EQ(first.count(zero), 1u) << zero;
        EXPECT_EQ(first[zero], 0) << zero;
    }
    EXPECT_GT(first["process_resident_memory_bytes"], 1 << 20);
    EXPECT_GT(first["process_open_fds"], 3);
    ASSERT_TRUE(TestSupport::WaitFor([&] { return Scrape(port)[cycles] > first[cycles]; }, kDeadlineMs));

    // A schema finding is delivered (with a warning); a file too large to read is a refusal.
    agent.WritePolicy("10001", "proc_detroot_feature", R"({"enabled": "yes"})");
    agent.WritePolicy("10001", "proc_detaction_feature", std::string(5 << 20, ' ') + "{}");
    agent.Reload();
    std::map<std::string, double> after;
    EXPECT_TRUE(TestSupport::WaitFor(
        [&] {
            after = Scrape(port);
            return after["corvane_policy_refusals_total"] >= 1 &&
                   after["corvane_policy_refreshes_total"] >= 2;
        },
        kDeadlineMs));
    EXPECT_EQ(after["corvane_policy_refusals_total"], 1);
    EXPECT_EQ(after["corvane_policy_refreshes_total"], 2);
}

TEST(AgentService, WatchdogHeartbeatStopsWhenATaskHangs) {
    const std::string module = std::string(CORVANE_BUILD_DIR) + "/tests/modules/libagent_test_module.so";
    // A datagram socket standing in for systemd's NOTIFY_SOCKET.
    const TestSupport::TempDir dir("notify");
    const std::string path = dir.path() + "/notify";
    const int notify = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(::bind(notify, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    // Every datagram that arrives within `ms`, joined by newlines.
    const auto read = [notify](long ms) {
        std::string all;
        pollfd ready{notify, POLLIN, 0};
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (std::chrono::steady_clock::now() < end) {
            if (::poll(&ready, 1, 100) == 1) {
                char buffer[4096];
                const ssize_t got = ::recv(notify, buffer, sizeof(buffer), 0);
                all.append(buffer, got > 0 ? static_cast<size_t>(got) : 0).push_back('\n');
            }
        }
        return all;
    };
    AgentRunner agent("watchdog");
    agent.WritePolicy("90001", "agent_test_feature", R"({"enabled": true, "value": "w", "burst": 1})");
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    ::setenv("WATCHDOG_USEC", "1000000", 1);
    const bool started = agent.Start({}, {module});
    ::unsetenv("NOTIFY_SOCKET");
    ::unsetenv("WATCHDOG_USEC");
    ASSERT_TRUE(started);

    const std::string healthy = read(4000);
    EXPECT_NE(healthy.find("READY=1"), std::string::npos) << healthy;
    EXPECT_NE(healthy.find("STATUS="), std::string::npos) << healthy;
    EXPECT_GE(TestSupport::CountOf(healthy, "WATCHDOG=1"), 3u) << healthy;

    agent.WritePolicy("90001", "agent_test_feature", R"({"enabled": true, "value": "w", "hang": true})");
    agent.Reload();
    // Drained while waiting: a full socket would block the agent's notifications.
    ASSERT_TRUE(TestSupport::WaitFor(
        [&] {
            read(200);
            return agent.ReadLog().find("watchdog: task agent_test_task has made no progress") !=
                   std::string::npos;
        },
        kDeadlineMs))
        << agent.ReadLog();
    read(600);  // a heartbeat already in flight
    EXPECT_EQ(TestSupport::CountOf(read(3000), "WATCHDOG=1"), 0u);
    EXPECT_EQ(agent.Stop(kDeadlineMs), 0);
    ::close(notify);
}

}  // namespace
