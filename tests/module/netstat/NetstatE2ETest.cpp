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

// The real agent downloads the address file named by the policy, keeps it, and
// reports a process connected to an address in it; only that finding scores.
// Policy addresses and files failing their digest are met by NetstatBlacklistTest.
TEST(NetstatE2ETest, ConnectionToADownloadedAddressIsReported) {
    sockaddr_in address{};
    const int listener = NetstatTest::Listen("127.0.0.2", address);
    ASSERT_GE(listener, 0);
    const TestSupport::ChildProcess peer([&address](const std::function<void()>& ready) {
        if (NetstatTest::Connect(address) >= 0) {
            ready();
            pause();
        }
    });
    ASSERT_GT(peer.pid(), 0);
    TestSupport::HttpTestServer server;
    const std::string content = "10.20.30.40\n127.0.0.2\n";
    server.Serve("/pupbip.dat", content);
    TestSupport::AgentRunner agent("netstat");
    agent.WritePolicy("10001", "proc_detaction_feature",
                      R"({"enabled": true, "content": {
        "detaction_full_task": {"task_condition": {"start_time": 0, "repeat_interval": 1},
        "report_score": 3, "score": {"tmp": 0, "hidden": 0, "deleted": 0, "loginothers": 0,
        "bip": 3, "cpu": 0, "strings": 0}, "biplib_url": ")" +
                          server.Url("/pupbip.dat") + R"(", "biplib_hash": ")" +
                          ModuleTest::Sha256Hex(content) + R"(", "cpu_usage_warn": 100000}}})");
    ASSERT_TRUE(agent.Start());

    const Json::Value entry = agent.WaitForFinding("procdet_0001", peer.pid(), 0x010).entry;
    ASSERT_FALSE(entry.isNull()) << agent.ReadLog();
    EXPECT_EQ(entry["dt_bip"].asString(), "127.0.0.2");
    EXPECT_EQ(entry["score"].asInt(), 3);
    EXPECT_EQ(TestSupport::ReadText(agent.prefix() + "/conf/pupbip.dat"), content);
    EXPECT_EQ(server.Requests("/pupbip.dat"), 1);
    close(listener);
}

}  // namespace
