#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "support/AgentRunner.h"
#include "support/TempDir.h"

namespace {

using TestSupport::AgentRunner;
using TestSupport::TempDir;

constexpr long kDeadlineMs = 60000;

// An agent in a pid namespace of its own, as in a container, reads a /proc whose
// pids the kernel's process connector does not name. A process started there after
// the agent's first cycle must still be reported within a few cycles, not at the
// next full rescan ten minutes later.
TEST(ContainerE2E, AgentInItsOwnPidNamespaceReportsAProcessStartedAfterIt) {
    ASSERT_EQ(geteuid(), 0u) << "needs root";
    const TempDir dir("container");
    chmod(dir.path().c_str(), 0755);
    const std::string program = dir.path() + "/svc-sleep";
    std::filesystem::copy_file("/bin/sleep", program);
    const std::string go = dir.path() + "/go";

    AgentRunner agent("container");
    agent.WritePolicy("10001", "proc_detaction_feature",
                      R"({"enabled": true, "content": {"detaction_full_task": {"task_condition":
                          {"start_time": 0, "repeat_interval": 2}, "report_score": 1, "score": {"tmp": 1}}}})");
    // The agent becomes the namespace's first process; the program starts beside it
    // once the test says so.
    agent.SetLauncher(
        {"unshare", "--pid", "--fork", "--mount-proc", "--kill-child=SIGTERM", "sh", "-c",
         "(while [ ! -e " + go + " ]; do sleep 0.1; done; exec " + program + " 600) & exec \"$@\"", "sh"});
    ASSERT_TRUE(agent.Start());
    ASSERT_TRUE(
        agent.WaitForLog("of its own, and the kernel process connector reports the host's pids", kDeadlineMs))
        << agent.ReadLog();
    ASSERT_TRUE(agent.WaitForLog("ProcDetActionFullTask run", kDeadlineMs)) << agent.ReadLog();
    std::ofstream(go) << "go\n";

    const bool reported = agent.WaitForAlert(
        [&](const Json::Value& alert) {
            for (const Json::Value& entry : alert["process_info"]) {
                if (entry["process_path"].asString() == program) {
                    return true;
                }
            }
            return false;
        },
        kDeadlineMs);
    EXPECT_TRUE(reported) << agent.ReadLog();
    agent.Stop(2000);
}

}  // namespace
