#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <tuple>
#include <utility>

#include "module/ModuleTestUtil.h"
#include "module/netstat/NetstatTestUtil.h"
#include "support/AgentRunner.h"
#include "support/ChildProcess.h"
#include "support/HttpTestServer.h"
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
constexpr int kConnectBip = 0x010;
constexpr int kHighCpuAndStrings = 0x060;

// A process connected to `ip`, held until the test ends.
struct Peer {
    explicit Peer(const char* ip) : listener(NetstatTest::Listen(ip, address)) {}
    ~Peer() { close(listener); }
    sockaddr_in address{};
    const int listener;
    const Child child{[this](const std::function<void()>& ready) {
        if (NetstatTest::Connect(address) >= 0) {
            ready();
            pause();
        }
    }};
};

// One agent run over every detector of the feature: programs under /tmp, deleted
// and busy ones (with a keyword in the executable) are reported, with the alert's
// header and the facts of process and parent; so are processes connected to an
// address of the downloaded file (kept on disk) or of the policy's own list, which
// unreadable elements do not make the agent refuse (their warning: agent_cli_test);
// ignored paths never are. Then a program that deletes its own file, which raises no
// kernel event: once seen in place, it is reported deleted by one of the two cycles
// that follow.
TEST(DetactionE2ETest, EveryDetectorReportsOnTheRealAgent) {
    const TestSupport::TempDir dir("detaction");
    auto copy = [&](const std::string& from, const std::string& name) {
        const std::string to = dir.path() + "/" + name;
        std::filesystem::copy_file(from, to);
        return to;
    };
    const std::string program = copy("/bin/sleep", "tmp");
    const std::string deleted = copy("/bin/sleep", "deleted");
    const std::string ignored = copy("/bin/sleep", "ignored");
    const Peer listed("127.0.0.2");
    const Peer downloaded("127.0.0.3");
    ASSERT_GE(listed.listener, 0);
    ASSERT_GE(downloaded.listener, 0);
    TestSupport::HttpTestServer server;
    const std::string addresses = "10.20.30.40\n127.0.0.3\n";
    server.Serve("/pupbip.dat", addresses);
    AgentRunner agent("detaction");
    agent.WriteConfig(R"({"collect": {"procs_refresh_seconds": 1}})");
    // Only processes above the CPU warning are searched; 5 % holds for a busy
    // program even on a loaded machine.
    agent.WritePolicy("10001", "proc_detaction_feature",
                      R"({"enabled": true, "content": {"detaction_full_task": {
        "task_condition": {"start_time": 0, "repeat_interval": 2}, "report_score": 3,
        "score": {"tmp": 3, "hidden": 1, "deleted": 1, "bip": 3, "cpu": 3, "strings": 3},
        "cpu_usage_warn": 500, "check_str_max_size_m": 10, "strings": ["stratum+tcp://"],
        "biplib_url": ")" +
                          server.Url("/pupbip.dat") + R"(", "biplib_hash": ")" +
                          ModuleTest::Sha256Hex(addresses) + R"(",
        "illegal_ip_list": ["127.0.0.2", "nonsense", "255.255.255.255"],
        "ignore_filepath": [")" +
                          ignored + R"("]}}})");
    Child child({program, "300"});
    Child ignoredChild({ignored, "300"});
    Child deletedChild({deleted, "300"});
    const Child pool({copy(STRINGS_BUSY_POOL, "pool")});
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

    entry = agent.WaitForFinding("procdet_0001", deletedChild.pid(), 0, kTimeoutMs).entry;
    EXPECT_EQ(std::make_tuple(entry["process_path"].asString(), entry["process_hash"].asString(),
                              entry["mode"].asUInt(), entry["rule"].asInt(), entry["score"].asInt()),
              std::make_tuple("/proc/" + std::to_string(deletedChild.pid()) + "/exe", deletedHash, 0755u,
                              kProcTmp | kProcDeleted, 4));

    entry = agent.WaitForFinding("procdet_0001", pool.pid(), 0x040, kTimeoutMs).entry;
    ASSERT_FALSE(entry.isNull()) << agent.ReadLog();
    EXPECT_EQ(entry["rule"].asInt() & kHighCpuAndStrings, kHighCpuAndStrings);
    EXPECT_EQ(entry["dt_strings"].asString(), "stratum+tcp://");
    EXPECT_FALSE(entry.isMember("dt_str_so"));

    for (const auto& [peer, ip] :
         {std::make_pair(&listed, "127.0.0.2"), std::make_pair(&downloaded, "127.0.0.3")}) {
        entry = agent.WaitForFinding("procdet_0001", peer->child.pid(), kConnectBip, kTimeoutMs).entry;
        ASSERT_FALSE(entry.isNull()) << ip << "\n" << agent.ReadLog();
        EXPECT_EQ(std::make_pair(entry["dt_bip"].asString(), entry["score"].asInt()),
                  std::make_pair(std::string(ip), 3));
    }
    EXPECT_EQ(TestSupport::ReadText(agent.prefix() + "/conf/pupbip.dat"), addresses);
    EXPECT_EQ(server.Requests("/pupbip.dat"), 1);

    // Over the next cycles the ignored program is never found. (A finding that stays the
    // same is not sent again: ResultsTest.)
    ASSERT_TRUE(agent.WaitForMoreLog("ProcDetActionFullTask run", 4, kTimeoutMs));
    EXPECT_EQ(agent.CountInLog("DetectNEW RESULT " + std::to_string(ignoredChild.pid()) + " "), 0u);
    EXPECT_EQ(agent.Findings("procdet_0001", ignoredChild.pid()).size(), 0u);

    // Started after the table's first rescans, so that events alone bring it in.
    const std::string selfDeleting = copy(DETROOT_HELPER, "selfdel");
    Child deleting({selfDeleting, dir.path(), "waitfile:go", "unlinkexe"});
    const std::string pid = std::to_string(deleting.pid());
    ASSERT_TRUE(agent.WaitForLog("DetectNEW RESULT " + pid + " " + selfDeleting + "=>1 ", kTimeoutMs))
        << agent.ReadLog();
    const size_t cycles = agent.CountInLog("CHECK FINISHED");
    std::ofstream(dir.path() + "/go") << "go\n";
    entry = agent.WaitForFinding("procdet_0001", deleting.pid(), kProcDeleted, kTimeoutMs).entry;
    ASSERT_FALSE(entry.isNull()) << agent.ReadLog();
    EXPECT_EQ(entry["rule"].asInt(), kProcTmp | kProcDeleted);
    EXPECT_LE(agent.CountInLogBefore("CHECK FINISHED",
                                     "DetectNEW RESULT " + pid + " " + selfDeleting + " (deleted)=>5 "),
              cycles + 1);
    agent.Stop();
}

}  // namespace
