#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <ctime>

#include "DetactionTestUtil.h"
#include "sdk/JsonUtils.h"
#include "support/TestEngine.h"

using namespace DetactionTest;

namespace {

Json::Value Parse(const std::string& text) {
    Json::Value value;
    SDK::JsonUtils::ParseJsonStr(text.c_str(), text.size(), value);
    return value;
}

// Every member of `expected` is in `actual` with the same JSON type and value.
void ExpectMembers(const Json::Value& actual, const Json::Value& expected) {
    for (const std::string& key : expected.getMemberNames()) {
        EXPECT_EQ(actual[key], expected[key]) << key;
    }
}

Engine::ProcCheckInfo Info(const std::string& path, unsigned int flags) {
    Engine::ProcCheckInfo info;
    info.filePath = path;
    info.flags = flags;
    return info;
}

class AlertTest : public ::testing::Test {
protected:
    Json::Value LastAlert() {
        const auto reports = env.report().GetReports();
        EXPECT_EQ(reports.back().type, "2");
        return Parse(reports.back().body);
    }

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
    const Json::Value alert = LastAlert();

    ExpectMembers(alert, Parse(R"({"event_classid": "procdet_0001", "event_name": "detaction",
        "event_category": 3000, "event_type": 3007, "severity": 2, "event_count": 1, "attack_phase": 6,
        "attack_tag": 4, "confidence": 70, "detect_module": "proc_det_module"})"));
    EXPECT_EQ(alert["event_id"].asString().size(), 36u);
    ASSERT_TRUE(alert["occur_time"].isIntegral());
    EXPECT_GE(alert["occur_time"].asInt64(), before);
    EXPECT_LE(alert["occur_time"].asInt64(), static_cast<long>(time(nullptr)));
    ASSERT_EQ(alert["process_info"].size(), 1u);
    Json::Value expected;
    expected["process_pid"] = child.pid();
    expected["process_path"] = exe;
    expected["process_hash"] = ModuleTest::Sha256OfFile(exe);
    expected["process_cmdline"] = "/bin/sleep 30";
    expected["parent_process_pid"] = getpid();
    expected["parent_process_path"] = RealPath("/proc/self/exe");
    expected["rule"] = 0x21;
    expected["mode"] = 0755;
    expected["score"] = 3;
    // Numeric details become dotted addresses whatever they measure.
    expected["dt_cpu"] = "127.0.0.1";
    expected["dt_conn_sum"] = "5.0.0.0";
    expected["dt_strings"] = "xmrig,randomx";
    ExpectMembers(alert["process_info"][0], expected);
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
    for (const auto& line : log.GetLines()) {
        EXPECT_EQ(line.file, "ProcDetActionFullTask") << line.text;  // the class, whichever file logs
    }
}

TEST_F(AlertTest, ScoresAndDescriptions) {
    // CMDLINE never scores; keys left out of "score" take their default weight.
    EXPECT_EQ(task->CalcScore(0), 0u);
    EXPECT_EQ(task->CalcScore(Engine::CMDLINE), 0u);
    EXPECT_EQ(task->CalcScore(Engine::CONNECT_BIP), 3u);
    EXPECT_EQ(task->CalcScore(0x1FF), 1u - 1u + 3u + 3u + 3u + 2u + 3u + 0u);
    // Without a "score" object every process scores 0.
    TaskPtr unscored = MakeInitedTask(R"({"task_condition": {"repeat_interval": 60}})");
    EXPECT_EQ(unscored->CalcScore(0x1FF), 0u);

    const std::map<unsigned int, std::string> descriptions = {
        {0, "CLEAR"},
        {0x021, "PROC_TMP, HIGHCPU, "},
        {0x200, ""},
        {0x1FF,
         "PROC_TMP, PROC_HIDDEN, PROC_DELETED, LOGIN_OTHERS, CONNECT_BIP, HIGHCPU, STRINGS, CMDLINE, "
         "PACKER, "}};
    for (const auto& [flags, text] : descriptions) {
        std::string desc = "old";
        Engine::ProcDetManager::MakeDesc(flags, desc);
        EXPECT_EQ(desc, text) << flags;
    }
}

}  // namespace
