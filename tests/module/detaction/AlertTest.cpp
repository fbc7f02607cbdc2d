#include <gtest/gtest.h>
#include <unistd.h>

#include "DetactionTestUtil.h"
#include "support/TestEngine.h"

using namespace DetactionTest;

namespace {

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

// The header, the process facts and the numeric details' dotted form are checked
// on the real agent's alerts (DetactionE2ETest, NetstatE2ETest) and in ResultsTest.
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

    // Named bits in order; a bit of no finding has no name.
    for (const auto& [flags, text] : std::map<unsigned int, std::string>{
             {0, "CLEAR"},
             {0x221, "PROC_TMP, HIGHCPU, "},
             {0x1FF,
              "PROC_TMP, PROC_HIDDEN, PROC_DELETED, LOGIN_OTHERS, CONNECT_BIP, HIGHCPU, STRINGS, CMDLINE, "
              "PACKER, "}}) {
        std::string desc = "old";
        Engine::ProcDetManager::MakeDesc(flags, desc);
        EXPECT_EQ(desc, text) << flags;
    }
}

}  // namespace
