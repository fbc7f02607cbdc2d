// The agent's command line as an operator meets it: --check, --version, and the
// starts that must fail rather than run an agent that detects nothing.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/AgentRunner.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

using TestSupport::AgentRunner;

using Outcome = AgentRunner::Outcome;
const auto RunAgent = AgentRunner::RunToEnd;

// Whether some line of `text` starts with `start` and holds `part`.
bool HasLine(const std::string& text, const std::string& start, const std::string& part) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(start, 0) == 0 && line.find(part) != std::string::npos) {
            return true;
        }
    }
    return false;
}

std::string Detaction(const std::string& task) {
    return R"({"enabled": true, "content": {"detaction_full_task": {"task_condition": {"repeat_interval": 60},
        "score": {"tmp": 1}, )" +
           task + "}}}";
}

// Each kind of finding through --check. An error is what the running agent refuses and
// fails the check (so the unit's ExecStartPre stops the start); a warning says what the
// module or agent makes of the key, and fails the check only with --strict.
TEST(AgentCommandLine, CheckMarksRefusalsAsErrorsAndTheRestAsWarnings) {
    const std::string fifo = "<fifo>";
    const std::string detroot = "p/10001/proc_detroot_feature.json";
    const std::string detaction = "p/10001/proc_detaction_feature.json";
    const std::string task = "content.detaction_full_task.";
    const struct {
        std::string file;
        std::string text;
        std::string severity;
        std::string finding;  // in the line "<dir>/<file>: <severity>: ..."
    } cases[] = {
        {detroot, R"({"enabled": tru)", "error", "-: not valid JSON"},
        {detroot, "[]", "error", "-: the top level must be a JSON object; refused"},
        {detroot, fifo, "error", "(not a regular file but a FIFO); refused"},
        {detroot, std::string(5 << 20, ' ') + "{}", "error", "(larger than 4194304 bytes); refused"},
        {"agent.json", R"({"cpu_share": )", "error", "-: not valid JSON"},
        {detroot, R"({"enabled": false,})", "warning", "-: not strict JSON"},
        {detaction, Detaction(R"("report_scor": 3)"), "warning",
         task + "report_scor: unknown key; the module ignores it"},
        {detaction, Detaction(R"("report_score": "three")"), "warning",
         task + "report_score: must be an integer, not a string; the module uses its default 3"},
        {detaction, Detaction(R"("report_score": 0, "check_str_max_size_m": 2048)"), "warning",
         task + "report_score: 0 is below 1; every process with any finding"},
        {detroot,
         R"({"enabled": true, "content": {"detroot_full_task": {"task_condition": {"repeat_interval": 0}}}})",
         "warning",
         "content.detroot_full_task.task_condition.repeat_interval: 0 is out of range (1..2147483647); the "
         "module refuses the schedule"},
        {detaction, Detaction(R"("illegal_ip_list": ["127.0.0.2", "nonsense", "255.255.255.255"])"),
         "warning", task + "illegal_ip_list[1]: \"nonsense\" is not an IPv4 address; the module skips it"},
        {detaction, Detaction(R"("full_report_hour": 3)"), "warning",
         task + "full_report_hour: accepted; has no effect"},
        {detroot, R"({"enabled": true, "content": {"detroot_full_task": {}}})", "warning",
         "content.detroot_full_task.task_condition: missing; the task keeps its schedule"},
        {"p/10001/proc_detection_feature.json", "{}", "warning",
         "-: policy id 10001 has no feature \"proc_detection_feature\""},
        {"p/10002/x.json", "{}", "warning", "-: no module here describes policy id 10002"},
    };
    for (const auto& entry : cases) {
        const TestSupport::TempDir dir("check");
        dir.Write("agent.json", "{}");
        dir.Write("p/.keep", "");
        const std::string path = dir.Write(entry.file, entry.text == fifo ? "" : entry.text);
        if (entry.text == fifo) {
            ::unlink(path.c_str());
            ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
        }
        const std::string args =
            "--check --config " + dir.path() + "/agent.json --policy-dir " + dir.path() + "/p";
        const Outcome outcome = RunAgent(args);
        EXPECT_TRUE(HasLine(outcome.out, path + ": " + entry.severity + ": ", entry.finding))
            << entry.finding << "\n"
            << outcome.out;
        EXPECT_EQ(outcome.status, entry.severity == "error" ? 1 : 0) << outcome.out;
        EXPECT_EQ(RunAgent(args + " --strict").status, 1) << entry.finding;
    }

    // What the package installs starts under ExecStartPre, --strict or not, and so do the
    // behaviour policies an operator may copy over the shipped one.
    for (const std::string policies : {"policies", "policies-variants/strict", "policies-variants/quiet"}) {
        const Outcome checked = RunAgent("--check --strict --prefix " + AgentRunner::BuildDir() +
                                         " --policy-dir " + AgentRunner::BuildDir() + "/conf/" + policies);
        EXPECT_EQ(checked.status, 0) << policies << "\n" << checked.out;
    }
    EXPECT_NE(RunAgent("--version").out.find("corvane-agent " CORVANE_TEST_VERSION " (revision "),
              std::string::npos);
}

// Every sink's resources as the report task checks them at start, none by connecting: each
// fault is an error under its agent.json key; with the resources in place the same sinks pass,
// except where the unit's sandbox would not let the agent write.
TEST(AgentCommandLine, CheckFindsWhatKeepsEachSinkFromDelivering) {
    const TestSupport::TempDir dir("sinks");
    const std::string d = dir.path() + "/";
    ASSERT_EQ(std::system(("cd " + d +
                           " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
                           "-keyout ca.key -out ca.pem -days 1 -subj /CN=corvane-test 2>/dev/null")
                              .c_str()),
              0);
    dir.Write("token", "secret\n");
    const int relay = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%slog.sock", d.c_str());
    ASSERT_EQ(::bind(relay, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    const auto check = [&](const std::string& no, const std::string& fileDir, const std::string& scheme,
                           const std::string& property, const std::string& more = "") {
        const std::string config = dir.Write(
            "agent.json",
            R"({"alerts": {"file": "", "spool": {"directory": ")" + d +
                R"(spool"}, "sinks": [{"type": "syslog", "host": "127.0.0.1", "port": 1, "tls": true, "ca_file": ")" +
                d + no + R"(ca.pem"}, {"type": "webhook", "url": ")" + scheme +
                R"(://127.0.0.1:1/", "token_file": ")" + d + no +
                R"(token"}, {"type": "syslog", "socket": ")" + d + no +
                R"(log.sock"}, {"type": "file", "path": ")" + fileDir +
                R"(/alerts.json"}, {"type": "kafka", "brokers": "127.0.0.1:1", "topic": "t", "properties": {")" +
                property + R"(": "5"}}]}})");
        return RunAgent("--check --config " + config + " --policy-dir " + AgentRunner::BuildDir() +
                        "/conf/policies " + more);
    };
    const Outcome faulty = check("no-", "/proc", "ftp", "no.such.property");
    EXPECT_EQ(faulty.status, 1);
    const std::string error = d + "agent.json: error: alerts.sinks";
    EXPECT_TRUE(HasLine(faulty.out, error + "[0].ca_file: ", "No such file")) << faulty.out;
    EXPECT_TRUE(HasLine(faulty.out, error + "[1].token_file: ", "No such file")) << faulty.out;
    EXPECT_TRUE(HasLine(faulty.out, error + "[1].url: ", "\"ftp\"")) << faulty.out;
    EXPECT_TRUE(HasLine(faulty.out, error + "[2].socket: ", "No such file")) << faulty.out;
    EXPECT_TRUE(HasLine(faulty.out, error + "[3].path: ", "proc file system")) << faulty.out;
    EXPECT_TRUE(HasLine(faulty.out, error + "[4].properties.no.such.property: ", "No such configuration"))
        << faulty.out;

    const Outcome valid = check("", dir.path(), "https", "linger.ms");
    EXPECT_EQ(valid.status, 0) << valid.out;
    const std::string unit = dir.Write("corvane-agent.service",
                                       "[Service]\nProtectSystem=strict\nReadWritePaths=" + d + "spool\n");
    const Outcome sandboxed = check("", dir.path(), "https", "linger.ms", "--unit " + unit);
    EXPECT_TRUE(HasLine(sandboxed.out, error + "[3].path: ", "lies outside what " + unit)) << sandboxed.out;
    EXPECT_EQ(sandboxed.out.find("alerts.spool.directory"), std::string::npos) << sandboxed.out;
    ::close(relay);
}

// A start that would detect nothing, or would run a library that is no module or that anyone
// could have planted, stops with exit code 2 and names the cause. Every line carries its syslog
// priority, as stderr is the journal: systemd names that stream in JOURNAL_STREAM.
TEST(AgentCommandLine, StartsThatCannotRunSafelyFailWithExitCode2) {
    const std::string modules = std::string(CORVANE_BUILD_DIR) + "/tests/modules/";
    const TestSupport::TempDir dir("starts");
    dir.Write("conf/agent.json", R"({"log": {"target": "stderr"}})");
    dir.Write("conf/policies/.keep", "");
    const std::string err = dir.Write("stderr", "");
    const std::string open = dir.path() + "/open";
    ASSERT_EQ(::mkdir(open.c_str(), 0777), 0);
    ASSERT_EQ(::chmod(open.c_str(), 0777), 0);
    ASSERT_EQ(
        ::symlink((modules + "libagent_test_module.so").c_str(), (open + "/libagent_test_module.so").c_str()),
        0);
    struct stat info {};
    ASSERT_EQ(::stat(err.c_str(), &info), 0);
    const std::string run = "JOURNAL_STREAM=" + std::to_string(info.st_dev) + ":" +
                            std::to_string(info.st_ino) + " timeout 120 " + AgentRunner::AgentBinary() +
                            " --prefix " + dir.path() + " ";
    std::string text;
    for (const auto& [args, why] : std::vector<std::pair<std::string, std::string>>{
             {"--config /nonexistent.json", "/nonexistent.json"},
             {"--policy-dir /nonexistent", "/nonexistent"},
             {"--module " + modules + "libagent_broken_module.so", "has no CreateModule function"},
             {"--module " + modules + "libnowhere.so", "module " + modules + "libnowhere.so: "},
             {"--module " + open + "/libagent_test_module.so", open + " is writable by everyone (mode 0777)"},
             {"--module " + AgentRunner::ModulePath("libnet_collect_module.so"),
              "<3>agent: no plug-in module loaded"}}) {
        std::ofstream(err, std::ios::trunc);
        const int status = std::system((run + args + " 2>>" + err).c_str());
        text = TestSupport::ReadText(err);
        EXPECT_EQ(WEXITSTATUS(status), 2) << args << "\n" << text;
        EXPECT_NE(text.find(why), std::string::npos) << text;
    }
    EXPECT_NE(text.find("<5>agent: corvane-agent "), std::string::npos) << text;  // start and stop: notice
    EXPECT_NE(text.find("<6>agent: task "), std::string::npos) << text;
}

}  // namespace
