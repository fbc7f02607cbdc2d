// The agent's command line as an operator meets it: --check, --version, and the
// starts that must fail rather than run an agent that detects nothing.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/AgentRunner.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

using TestSupport::AgentRunner;

struct Outcome {
    int status = -1;
    std::string out;
};

Outcome RunAgent(const std::string& args) {
    Outcome outcome;
    FILE* pipe = ::popen((AgentRunner::AgentBinary() + " " + args + " 2>/dev/null").c_str(), "r");
    char buffer[4096];
    size_t got = 0;
    while (pipe != nullptr && (got = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        outcome.out.append(buffer, got);
    }
    const int raw = pipe != nullptr ? ::pclose(pipe) : -1;
    outcome.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return outcome;
}

std::string Detaction(const std::string& task) {
    return R"({"enabled": true, "content": {"detaction_full_task": {"task_condition": {"repeat_interval": 60},
        "score": {"tmp": 1}, )" +
           task + "}}}";
}

TEST(AgentCommandLine, CheckNamesEveryProblemWithItsFileAndKey) {
    const TestSupport::TempDir dir("check");
    const struct {
        std::string file;
        std::string text;
        std::string finding;  // expected after "<dir>/<file>: "
    } cases[] = {
        {"policies/10001/proc_detaction_feature.json", Detaction(R"("report_score": "three")"),
         "content.detaction_full_task.report_score: must be an integer, not a string"},
        {"policies/10001/proc_detroot_feature.json",
         R"({"enabled": true, "content": {"detroot_full_task": {"task_condition": {"repeat_interval": 0}}}})",
         "content.detroot_full_task.task_condition.repeat_interval: 0 is out of range"},
        {"policies/10002/proc_detaction_feature.json", "{}", "-: no module describes policy id 10002"},
        {"policies/10001/proc_detection_feature.json", "{}", "-: no module takes the feature"},
        {"bad/10001/proc_detaction_feature.json", Detaction(R"("report_scor": 3)"),
         "content.detaction_full_task.report_scor: unknown key"},
        {"bad/10001/proc_detroot_feature.json", R"({"enabled": true,})", "-: not valid JSON"},
        {"agent.json", R"({"cpu_share": 300, "log": {"levl": "debug"}})", "cpu_share: must be an integer"},
        {"agent.json", "", "log.levl: unknown key"},
    };
    for (const auto& entry : cases) {
        if (!entry.text.empty()) {
            dir.Write(entry.file, entry.text);
        }
    }
    Outcome first =
        RunAgent("--check --config " + dir.path() + "/agent.json --policy-dir " + dir.path() + "/policies");
    const Outcome second =
        RunAgent("--check --config " + dir.path() + "/agent.json --policy-dir " + dir.path() + "/bad");
    EXPECT_EQ(first.status, 1);
    EXPECT_EQ(second.status, 1);
    first.out += second.out;
    for (const auto& entry : cases) {
        EXPECT_NE(first.out.find(dir.path() + "/" + entry.file + ": " + entry.finding), std::string::npos)
            << entry.finding << "\n"
            << first.out;
    }

    const Outcome clean = RunAgent("--check --prefix " + AgentRunner::BuildDir());
    EXPECT_EQ(clean.status, 0) << clean.out;
    EXPECT_NE(RunAgent("--version").out.find("corvane-agent " CORVANE_TEST_VERSION " (revision "),
              std::string::npos);
}

TEST(AgentCommandLine, StartsThatWouldDetectNothingFailWithExitCode2) {
    const std::string collectOnly = " --module " + AgentRunner::ModulePath("libprocess_collect_module.so");
    for (const std::string& args :
         {std::string("--config /nonexistent.json"), std::string("--policy-dir /nonexistent"), collectOnly}) {
        EXPECT_EQ(RunAgent("--prefix " + AgentRunner::BuildDir() + " --log-level error " + args).status, 2)
            << args;
    }
}

TEST(AgentCommandLine, LinesToTheJournalCarryTheirSyslogPriority) {
    const TestSupport::TempDir dir("journal");
    const std::string config = dir.Write("agent.json", R"({"log": {"target": "stderr"}})");
    const std::string err = dir.Write("stderr", "");
    struct stat info {};
    ASSERT_EQ(::stat(err.c_str(), &info), 0);
    // Stands in for systemd, which names the stream it connected to stderr.
    const std::string stream = std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
    FILE* pipe = ::popen(("JOURNAL_STREAM=" + stream + " " + AgentRunner::AgentBinary() + " --prefix " +
                          AgentRunner::BuildDir() + " --config " + config + " --module " +
                          AgentRunner::ModulePath("libnet_collect_module.so") + " 2>>" + err)
                             .c_str(),
                         "r");
    ASSERT_NE(pipe, nullptr);
    EXPECT_EQ(WEXITSTATUS(::pclose(pipe)), 2);
    const std::string text = TestSupport::ReadText(err);
    EXPECT_NE(text.find("<3>agent: no plug-in module loaded"), std::string::npos) << text;
    EXPECT_NE(text.find("<6>agent: corvane-agent "), std::string::npos) << text;
}

}  // namespace
