#include <Poco/File.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

#include "TestFileServer.h"
#include "support/AgentRunner.h"

namespace {

using NetstatTest::Sha256Hex;
using TestSupport::AgentRunner;

constexpr long kDeadlineMs = 60000;
constexpr const char* kBlackIp = "127.0.0.2";

// Only the blacklist finding scores, and alone it reaches the report score.
std::string DetactionPolicy(const std::string& illegalIps, const std::string& url, const std::string& hash) {
    return R"({"enabled": true, "content": {"detaction_full_task": {
        "task_condition": {"start_time": 0, "repeat_interval": 1},
        "report_score": 3,
        "score": {"tmp": 0, "hidden": 0, "deleted": 0, "loginothers": 0, "bip": 3, "cpu": 0, "strings": 0},
        "illegal_ip_list": [)" +
           illegalIps + R"(],
        "biplib_url": ")" +
           url + R"(", "biplib_hash": ")" + hash + R"(",
        "cpu_usage_warn": 100000, "strings": [], "ignore_filepath": []}}})";
}

// A listener on 127.0.0.2 and a child process holding a connection to it.
class BlacklistedPeer {
public:
    BlacklistedPeer() {
        listener_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = inet_addr(kBlackIp);
        socklen_t length = sizeof(addr);
        if (bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            listen(listener_, 4) != 0 ||
            getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &length) != 0) {
            ADD_FAILURE() << "listener on " << kBlackIp;
            return;
        }
        child_ = fork();
        if (child_ == 0) {
            const int fd = socket(AF_INET, SOCK_STREAM, 0);
            if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
                _exit(1);
            }
            for (;;) {
                pause();
            }
        }
        accepted_ = accept(listener_, nullptr, nullptr);
    }
    ~BlacklistedPeer() {
        if (child_ > 0) {
            kill(child_, SIGKILL);
            waitpid(child_, nullptr, 0);
        }
        close(accepted_);
        close(listener_);
    }
    int pid() const { return child_; }

private:
    int listener_ = -1;
    int accepted_ = -1;
    pid_t child_ = -1;
};

std::vector<Json::Value> BipEntries(const AgentRunner& agent, int pid) {
    return TestSupport::FindProcessEntries(agent.ReadAlerts(), "procdet_0001", [pid](const Json::Value& e) {
        return e.get("process_pid", 0).asInt() == pid && (e.get("rule", 0).asUInt() & 0x010) != 0;
    });
}

bool PollUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kDeadlineMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    return true;
}

bool WaitForBipEntry(const AgentRunner& agent, int pid, Json::Value& entry) {
    return PollUntil([&] {
        const auto entries = BipEntries(agent, pid);
        if (entries.empty()) {
            return false;
        }
        entry = entries.front();
        return true;
    });
}

size_t Occurrences(const std::string& text, const std::string& needle) {
    size_t count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++count;
    }
    return count;
}

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void ExpectBipEntry(const Json::Value& entry) {
    EXPECT_EQ(entry.get("dt_bip", "").asString(), kBlackIp);
    EXPECT_EQ(entry.get("score", 0).asInt(), 3);
}

TEST(NetstatE2ETest, PolicyAddressIsReported) {
    BlacklistedPeer peer;
    ASSERT_GT(peer.pid(), 0);
    AgentRunner agent("netstat-policy");
    agent.WritePolicy("10001", "proc_detaction_feature", DetactionPolicy("\"127.0.0.2\"", "", ""));
    ASSERT_TRUE(agent.Start());

    Json::Value entry;
    ASSERT_TRUE(WaitForBipEntry(agent, peer.pid(), entry)) << agent.ReadLog();
    ExpectBipEntry(entry);
}

TEST(NetstatE2ETest, DownloadedAddressFileIsUsed) {
    const std::string content = "10.20.30.40\n127.0.0.2\n";
    NetstatTest::TestFileServer server;
    server.Serve("/pupbip.dat", content);
    BlacklistedPeer peer;
    ASSERT_GT(peer.pid(), 0);
    AgentRunner agent("netstat-download");
    agent.WritePolicy("10001", "proc_detaction_feature",
                      DetactionPolicy("", server.Url("/pupbip.dat"), Sha256Hex(content)));
    ASSERT_TRUE(agent.Start());

    Json::Value entry;
    ASSERT_TRUE(WaitForBipEntry(agent, peer.pid(), entry)) << agent.ReadLog();
    ExpectBipEntry(entry);
    EXPECT_EQ(ReadText(agent.prefix() + "/conf/pupbip.dat"), content);
    EXPECT_EQ(server.Requests("/pupbip.dat"), 1);
}

TEST(NetstatE2ETest, AddressFileWithWrongDigestIsIgnored) {
    const std::string content = "127.0.0.2\n";
    NetstatTest::TestFileServer server;
    server.Serve("/pupbip.dat", content);
    BlacklistedPeer peer;
    ASSERT_GT(peer.pid(), 0);
    AgentRunner agent("netstat-digest");
    agent.WritePolicy("10001", "proc_detaction_feature",
                      DetactionPolicy("", server.Url("/pupbip.dat"), Sha256Hex("some other file")));
    ASSERT_TRUE(agent.Start());

    // Wait for the download, then for two more full cycles.
    ASSERT_TRUE(PollUntil([&] { return server.Requests("/pupbip.dat") > 0; })) << agent.ReadLog();
    const size_t cycles = Occurrences(agent.ReadLog(), "CHECK FINISHED");
    ASSERT_TRUE(PollUntil([&] { return Occurrences(agent.ReadLog(), "CHECK FINISHED") >= cycles + 2; }));
    ASSERT_TRUE(agent.IsRunning());
    EXPECT_TRUE(BipEntries(agent, peer.pid()).empty());
    // The file stays on disk for the next download to replace.
    EXPECT_TRUE(Poco::File(agent.prefix() + "/conf/pupbip.dat").exists());
}

}  // namespace
