#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "NetstatTestUtil.h"
#include "module/ModuleTestUtil.h"
#include "support/AgentRunner.h"
#include "support/ChildProcess.h"
#include "support/HttpTestServer.h"

namespace {

// A process connected to `ip`, held until the test ends.
struct Peer {
    explicit Peer(const char* ip) : listener(NetstatTest::Listen(ip, address)) {}
    ~Peer() { close(listener); }
    sockaddr_in address{};
    const int listener;
    const TestSupport::ChildProcess child{[this](const std::function<void()>& ready) {
        if (NetstatTest::Connect(address) >= 0) {
            ready();
            pause();
        }
    }};
};

// The real agent downloads the address file named by the policy, keeps it, and
// reports a process connected to an address in it, and one connected to an address
// of the policy's own list, whose unreadable elements are skipped, not a reason to
// refuse the policy; only the address finding scores. Files failing their digest are met by
// NetstatBlacklistTest.
TEST(NetstatE2ETest, ConnectionsToDownloadedAndListedAddressesAreReported) {
    const Peer listed("127.0.0.2");
    const Peer downloaded("127.0.0.3");
    ASSERT_GE(listed.listener, 0);
    ASSERT_GE(downloaded.listener, 0);
    TestSupport::HttpTestServer server;
    const std::string content = "10.20.30.40\n127.0.0.3\n";
    server.Serve("/pupbip.dat", content);
    TestSupport::AgentRunner agent("netstat");
    agent.WritePolicy("10001", "proc_detaction_feature",
                      R"({"enabled": true, "content": {
        "detaction_full_task": {"task_condition": {"start_time": 0, "repeat_interval": 1},
        "report_score": 3, "score": {"tmp": 0, "hidden": 0, "deleted": 0,
        "bip": 3, "cpu": 0, "strings": 0}, "biplib_url": ")" +
                          server.Url("/pupbip.dat") + R"(", "biplib_hash": ")" +
                          ModuleTest::Sha256Hex(content) + R"(", "cpu_usage_warn": 100000,
        "illegal_ip_list": ["127.0.0.2", "nonsense", "255.255.255.255"]}}})");
    ASSERT_TRUE(agent.Start());

    for (const auto& [peer, ip] :
         {std::make_pair(&listed, "127.0.0.2"), std::make_pair(&downloaded, "127.0.0.3")}) {
        const Json::Value entry = agent.WaitForFinding("procdet_0001", peer->child.pid(), 0x010).entry;
        ASSERT_FALSE(entry.isNull()) << ip << "\n" << agent.ReadLog();
        EXPECT_EQ(entry["dt_bip"].asString(), ip);
        EXPECT_EQ(entry["score"].asInt(), 3);
    }
    EXPECT_NE(
        agent.ReadLog().find("illegal_ip_list[1]: \"nonsense\" is not an IPv4 address; the module skips it"),
        std::string::npos);
    EXPECT_EQ(TestSupport::ReadText(agent.prefix() + "/conf/pupbip.dat"), content);
    EXPECT_EQ(server.Requests("/pupbip.dat"), 1);
}

}  // namespace
