#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "NetstatTestUtil.h"
#include "module/ModuleTestUtil.h"
#include "support/AgentRunner.h"
#include "support/ChildProcess.h"
#include "support/HttpTestServer.h"

namespace {

using ModuleTest::Sha256Hex;
using TestSupport::WaitFor;

constexpr long kDeadlineMs = 60000;

// A child process connected to a listener on 127.0.0.2, and the agent watching it
// with a policy where only the blacklist finding scores, and alone reaches the
// report score.
class NetstatE2ETest : public ::testing::Test {
protected:
    ~NetstatE2ETest() override { close(listener_); }

    void Start(const std::string& name, const std::string& illegalIps, const std::string& url,
               const std::string& hash) {
        ASSERT_GE(listener_, 0);
        peer_ = std::make_unique<TestSupport::ChildProcess>([this](const std::function<void()>& ready) {
            if (NetstatTest::Connect(address_) >= 0) {
                ready();
                pause();
            }
        });
        ASSERT_GT(peer_->pid(), 0);
        agent_ = std::make_unique<TestSupport::AgentRunner>(name);
        agent_->WritePolicy("10001", "proc_detaction_feature",
                            R"({"enabled": true, "content": {
            "detaction_full_task": {"task_condition": {"start_time": 0, "repeat_interval": 1},
            "report_score": 3, "score": {"tmp": 0, "hidden": 0, "deleted": 0, "loginothers": 0,
            "bip": 3, "cpu": 0, "strings": 0}, "illegal_ip_list": [)" +
                                illegalIps + R"(], "biplib_url": ")" + url + R"(", "biplib_hash": ")" + hash +
                                R"(", "cpu_usage_warn": 100000}}})");
        ASSERT_TRUE(agent_->Start());
    }
    std::vector<Json::Value> BipEntries() const {
        const int pid = peer_->pid();
        return TestSupport::FindProcessEntries(
            agent_->ReadAlerts(), "procdet_0001", [pid](const Json::Value& e) {
                return e["process_pid"].asInt() == pid && (e["rule"].asUInt() & 0x010) != 0;
            });
    }
    void ExpectBipEntry() const {
        ASSERT_TRUE(WaitFor([&] { return !BipEntries().empty(); }, kDeadlineMs)) << agent_->ReadLog();
        EXPECT_EQ(BipEntries().front()["dt_bip"].asString(), "127.0.0.2");
        EXPECT_EQ(BipEntries().front()["score"].asInt(), 3);
    }

    sockaddr_in address_{};
    int listener_ = NetstatTest::Listen("127.0.0.2", address_);
    TestSupport::HttpTestServer server_;
    std::unique_ptr<TestSupport::ChildProcess> peer_;
    std::unique_ptr<TestSupport::AgentRunner> agent_;
};

TEST_F(NetstatE2ETest, PolicyAddressIsReported) {
    Start("netstat-policy", "\"127.0.0.2\"", "", "");
    ExpectBipEntry();
}

TEST_F(NetstatE2ETest, DownloadedAddressFileIsUsed) {
    const std::string content = "10.20.30.40\n127.0.0.2\n";
    server_.Serve("/pupbip.dat", content);
    Start("netstat-download", "", server_.Url("/pupbip.dat"), Sha256Hex(content));
    ExpectBipEntry();
    EXPECT_EQ(TestSupport::ReadText(agent_->prefix() + "/conf/pupbip.dat"), content);
    EXPECT_EQ(server_.Requests("/pupbip.dat"), 1);
}

TEST_F(NetstatE2ETest, AddressFileWithWrongDigestIsIgnored) {
    server_.Serve("/pupbip.dat", "127.0.0.2\n");
    Start("netstat-digest", "", server_.Url("/pupbip.dat"), Sha256Hex("some other file"));

    // Wait for the download, then for two more full cycles.
    ASSERT_TRUE(WaitFor([&] { return server_.Requests("/pupbip.dat") > 0; }, kDeadlineMs))
        << agent_->ReadLog();
    ASSERT_TRUE(ModuleTest::WaitForMoreInLog(*agent_, "CHECK FINISHED", 2));
    ASSERT_TRUE(agent_->IsRunning());
    EXPECT_TRUE(BipEntries().empty());
    // The file stays on disk for the next download to replace.
    EXPECT_TRUE(std::filesystem::exists(agent_->prefix() + "/conf/pupbip.dat"));
}

}  // namespace
