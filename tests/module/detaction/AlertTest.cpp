#include <gtest/gtest.h>
#include <json/json.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>

#include "DetactionTestUtil.h"
#include "feature_detaction/ProcDetManager.h"
#include "sdk/JsonUtils.h"
#include "support/TestEngine.h"

using namespace DetactionTest;

namespace {

std::string Sha256Sum(const std::string& path) {
    std::string out;
    FILE* pipe = popen(("sha256sum '" + path + "'").c_str(), "r");
    if (pipe == nullptr) {
        return out;
    }
    char buffer[128] = {0};
    if (fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        out.assign(buffer, strnlen(buffer, 64));
    }
    pclose(pipe);
    return out;
}

std::string RealPath(const std::string& path) {
    char buffer[PATH_MAX] = {0};
    return realpath(path.c_str(), buffer) != nullptr ? buffer : "";
}

Json::Value LastAlert(TestSupport::CaptureReportTask& report) {
    Json::Value alert;
    const auto reports = report.GetReports();
    if (!reports.empty()) {
        EXPECT_EQ(reports.back().type, "2");
        SDK::JsonUtils::ParseJsonStr(reports.back().body.c_str(), reports.back().body.size(), alert);
    }
    return alert;
}

Engine::ProcCheckInfo Info(const std::string& path, unsigned int flags) {
    Engine::ProcCheckInfo info;
    info.filePath = path;
    info.flags = flags;
    return info;
}

class AlertTest : public ::testing::Test {
protected:
    TestSupport::TestEngine env;
    TestSupport::LogCapture log{"proc_det_module"};
    TaskPtr task = MakeInitedTask(TaskSection(R"({"tmp": 1, "cpu": 2, "deleted": 3, "hidden": -1})"));
};

TEST_F(AlertTest, AlertCarriesEveryFieldOfALiveProcess) {
    Child child({"/bin/sleep", "30"});
    const std::string exe = RealPath("/bin/sleep");
    Engine::ProcCheckInfo info = Info(exe, Engine::PROC_TMP | Engine::HIGHCPU);
    info.numDetails = {{"dt_cpu", 16777343}, {"dt_conn_sum", 5}};
    info.strDetails = {{"dt_strings", "xmrig,randomx"}};

    const long before = static_cast<long>(time(nullptr));
    task->DetActionNotify({{child.pid(), info}}, nullptr);
    ASSERT_EQ(env.report().GetCount(), 1u);
    const Json::Value alert = LastAlert(env.report());

    EXPECT_EQ(alert["event_id"].asString().size(), 36u);
    EXPECT_EQ(alert["event_classid"].asString(), "procdet_0001");
    EXPECT_EQ(alert["event_name"].asString(), "detaction");
    ASSERT_TRUE(alert["occur_time"].isIntegral());
    EXPECT_GE(alert["occur_time"].asInt64(), before);
    EXPECT_LE(alert["occur_time"].asInt64(), static_cast<long>(time(nullptr)));
    for (const auto& [key, value] : std::map<std::string, int>{{"event_category", 3000},
                                                               {"event_type", 3007},
                                                               {"severity", 2},
                                                               {"event_count", 1},
                                                               {"attack_phase", 6},
                                                               {"attack_tag", 4},
                                                               {"confidence", 70}}) {
        EXPECT_TRUE(alert[key].isInt()) << key;
        EXPECT_EQ(alert[key].asInt(), value) << key;
    }
    EXPECT_EQ(alert["detect_module"].asString(), "proc_det_module");

    ASSERT_EQ(alert["process_info"].size(), 1u);
    const Json::Value& item = alert["process_info"][0];
    EXPECT_TRUE(item["process_pid"].isInt());
    EXPECT_EQ(item["process_pid"].asInt(), child.pid());
    EXPECT_EQ(item["process_path"].asString(), exe);
    EXPECT_EQ(item["process_hash"].asString(), Sha256Sum(exe));
    EXPECT_EQ(item["process_cmdline"].asString(), "/bin/sleep 30");
    EXPECT_EQ(item["parent_process_pid"].asInt(), getpid());
    EXPECT_EQ(item["parent_process_path"].asString(), RealPath("/proc/self/exe"));
    EXPECT_EQ(item["rule"].asInt(), 0x21);
    EXPECT_EQ(item["mode"].asUInt(), 0755u);
    EXPECT_EQ(item["score"].asInt(), 3);
    // Numeric details become dotted addresses whatever they measure.
    EXPECT_EQ(item["dt_cpu"].asString(), "127.0.0.1");
    EXPECT_EQ(item["dt_conn_sum"].asString(), "5.0.0.0");
    EXPECT_EQ(item["dt_strings"].asString(), "xmrig,randomx");
}

TEST_F(AlertTest, DeletedExecutableIsReadThroughProcLink) {
    const std::string copy = "/tmp/detaction-alert-" + std::to_string(getpid());
    std::filesystem::copy_file("/bin/sleep", copy, std::filesystem::copy_options::overwrite_existing);
    const std::string hash = Sha256Sum(copy);
    Child child({copy, "30"});
    ASSERT_TRUE(WaitFor([&] { return RealPath("/proc/" + std::to_string(child.pid()) + "/exe") == copy; }));
    std::filesystem::remove(copy);

    task->DetActionNotify({{child.pid(), Info(copy + " (deleted)", Engine::PROC_DELETED)}}, nullptr);
    ASSERT_EQ(env.report().GetCount(), 1u);
    const Json::Value item = LastAlert(env.report())["process_info"][0];
    EXPECT_EQ(item["process_path"].asString(), "/proc/" + std::to_string(child.pid()) + "/exe");
    EXPECT_EQ(item["process_hash"].asString(), hash);
    EXPECT_EQ(item["mode"].asUInt(), 0755u);
}

TEST_F(AlertTest, NothingIsSentBelowTheScoreOrForDeadProcesses) {
    Child child({"/bin/sleep", "30"});
    const int dead = DeadPid();
    // tmp 1 + hidden -1 scores 0; cpu 2 stays under 3; a dead process is skipped.
    task->DetActionNotify({{child.pid(), Info("/tmp/.x", Engine::PROC_TMP | Engine::PROC_HIDDEN)},
                           {dead, Info("/tmp/gone", Engine::PROC_DELETED)}},
                          nullptr);
    task->DetActionNotify({{child.pid(), Info("/usr/bin/busy", Engine::HIGHCPU)}}, nullptr);
    task->DetActionNotify({}, nullptr);
    EXPECT_EQ(env.report().GetCount(), 0u);
    EXPECT_EQ(log.Count("DONT REPORT. pid:" + std::to_string(child.pid()) + " /tmp/.x s:0<3"), 1u);
    EXPECT_EQ(log.Count("NOT_EXISTS. Maybe dead already. pid:" + std::to_string(dead) + " /tmp/gone"), 1u);
}

TEST_F(AlertTest, ScoresDescriptionsAndAddresses) {
    // CMDLINE never scores, negatives subtract.
    EXPECT_EQ(task->CalcScore(0), 0u);
    EXPECT_EQ(task->CalcScore(Engine::CMDLINE), 0u);
    EXPECT_EQ(task->CalcScore(Engine::CONNECT_BIP), 3u);  // default weight of a key left out
    EXPECT_EQ(task->CalcScore(0x1FF), 1u - 1u + 3u + 3u + 3u + 2u + 3u + 0u);

    std::string desc = "old";
    Engine::ProcDetManager::MakeDesc(0, desc);
    EXPECT_EQ(desc, "CLEAR");
    Engine::ProcDetManager::MakeDesc(0x1FF, desc);
    EXPECT_EQ(desc,
              "PROC_TMP, PROC_HIDDEN, PROC_DELETED, LOGIN_OTHERS, CONNECT_BIP, HIGHCPU, STRINGS, CMDLINE, "
              "PACKER, ");
    Engine::ProcDetManager::MakeDesc(0x021, desc);
    EXPECT_EQ(desc, "PROC_TMP, HIGHCPU, ");
    Engine::ProcDetManager::MakeDesc(0x200, desc);
    EXPECT_EQ(desc, "");

    std::string text;
    task->ConvertIntIpToString(16777343, text);
    EXPECT_EQ(text, "127.0.0.1");
    task->ConvertIntIpToString(0xFFFFFFFFL, text);
    EXPECT_EQ(text, "255.255.255.255");
}

TEST(AlertScoreTest, PolicyWithoutScoreScoresNothing) {
    TestSupport::TestEngine env;
    TaskPtr task = MakeInitedTask(R"({"task_condition": {"repeat_interval": 60}, "report_score": 0})");
    EXPECT_EQ(task->GetReportScore(), 0);
    EXPECT_EQ(task->CalcScore(0x1FF), 0u);
}

}  // namespace
