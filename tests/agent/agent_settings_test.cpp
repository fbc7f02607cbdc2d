// agent.json and the command line.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "AgentPaths.h"
#include "AgentSettings.h"
#include "AgentSettingsParser.h"
#include "CommandLine.h"

namespace {

using Agent::ConfigProblem;

// Found as "key: what" in one of the problems, all of them warnings unless `error`.
bool Mentions(const std::vector<ConfigProblem>& problems, const std::string& needle, bool error = false) {
    return std::any_of(problems.begin(), problems.end(), [&](const ConfigProblem& problem) {
        return problem.IsError() == error &&
               (problem.key + ": " + problem.what).find(needle) != std::string::npos;
    });
}

}  // namespace

TEST(AgentSettingsParser, BadValuesKeepTheirDefaultsAndAreNamed) {
    Agent::AgentSettings settings;
    const std::vector<ConfigProblem> problems = Agent::AgentSettingsParser::Parse(R"({
        "log": {"level": "loud", "target": "stderr", "rotate_size": "ten"},
        "cpu_share": 101,
        "alerts": {"stdout": "yes", "file": "/var/alerts.json", "rotate_bytes": -1, "keep_files": 2},
        "collect": {"procs_refresh_seconds": 0, "net_refresh_seconds": 7},
        "colect": {}
    })",
                                                                                  settings);
    EXPECT_EQ(problems.size(), 7u);
    for (const char* key : {"log.level: ", "log.rotate_size: ", "cpu_share: ", "alerts.stdout: ",
                            "alerts.rotate_bytes: ", "collect.procs_refresh_seconds: ", "colect: "}) {
        EXPECT_TRUE(Mentions(problems, key)) << key;
    }
    const Agent::AgentSettings defaults;
    EXPECT_EQ(std::tie(settings.log.level, settings.log.rotateSize, settings.cpuShare,
                       settings.alerts.toStdout, settings.alerts.rotateBytes, settings.procsRefreshSeconds),
              std::tie(defaults.log.level, defaults.log.rotateSize, defaults.cpuShare,
                       defaults.alerts.toStdout, defaults.alerts.rotateBytes, defaults.procsRefreshSeconds));
    // The good siblings of bad values still apply.
    EXPECT_EQ(std::tie(settings.log.target, settings.alerts.filePath, settings.alerts.keepFiles,
                       settings.netRefreshSeconds),
              std::make_tuple("stderr", "/var/alerts.json", 2, 7));
}

TEST(AgentSettingsParser, SinksAreCheckedEntryByEntryAndEachBadOneIsNamed) {
    Agent::AgentSettings settings;
    const std::vector<ConfigProblem> problems = Agent::AgentSettingsParser::Parse(R"({"alerts": {
        "spool": {"max_bytes": 1000, "dir": "x"},
        "sinks": [
            {"type": "kafka", "brokers": "k:9092", "topic": "t", "properties": {"acks": 1, "x": [1]}},
            {"type": "webhook", "url": "https://siem/in", "format": "xml", "token": "inline"},
            {"type": "webhook"},
            {"type": "syslog", "host": "relay"},
            {"type": "pigeon"},
            {"type": "file", "name": "kafka", "path": "a.json"},
            {"type": "syslog", "envelope": true},
            7
        ]}})",
                                                                                  settings);
    for (const char* needle :
         {"alerts.spool.max_bytes: below 1 MiB", "alerts.spool.dir: unknown key",
          "alerts.sinks[0].properties.x: must be a string", "alerts.sinks[1].format: must be",
          "alerts.sinks[1].token: unknown key", "alerts.sinks[2]: a webhook sink needs \"url\"",
          "alerts.sinks[3]: a syslog sink needs \"port\"", "alerts.sinks[4].type: must be",
          "alerts.sinks[5].name: \"kafka\" is taken", "alerts.sinks[7]: must be an object"}) {
        EXPECT_TRUE(Mentions(problems, needle)) << needle;
    }
    EXPECT_EQ(problems.size(), 10u);
    ASSERT_EQ(settings.alerts.sinks.size(), 3u);
    const auto& sinks = settings.alerts.sinks;
    EXPECT_EQ(std::make_tuple(sinks[0].properties.at("acks"), sinks[1].name, sinks[1].format, sinks[2].socket,
                              sinks[2].envelope, settings.alerts.spoolMaxBytes),
              std::make_tuple("1", "webhook", "lines", "/dev/log", true, 1u << 20));
}

TEST(AgentSettingsParser, UnusableFilesLeaveEverythingAtDefaults) {
    // Broken JSON of every kind is the parser's (JsonUtils tests); a top level that is no object
    // goes the same way (the command-line test's "[]" policy).
    Agent::AgentSettings settings;
    std::vector<ConfigProblem> problems = Agent::AgentSettingsParser::Parse("{\"cpu_share\": 20", settings);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_TRUE(Mentions(problems, "using the default settings", true));
    EXPECT_EQ(settings.cpuShare, 10);
    // Without the file the agent runs on its defaults: not a reason to refuse a start.
    problems = Agent::AgentSettings::LoadFile("/nonexistent/agent.json", settings);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_TRUE(Mentions(problems, "-: does not exist; using the default settings"));
}

TEST(CommandLine, ParsesEveryOptionInBothFormsAndRefusesMistakes) {
    Agent::AgentOptions options;
    std::string error;
    ASSERT_TRUE(Agent::CommandLine::Parse(
        {"--prefix", "/opt/c", "--config=/etc/a.json", "--policy-dir", "pol", "--module", "a.so",
         "--module=b.so", "--alerts", "-", "--log-level", "debug"},
        options, error))
        << error;
    EXPECT_EQ(std::tie(options.prefix, options.config, options.policyDir, options.modules, options.alerts,
                       options.logLevel, options.help),
              std::make_tuple("/opt/c", "/etc/a.json", "pol", std::vector<std::string>{"a.so", "b.so"}, "-",
                              "debug", false));

    Agent::AgentOptions help;
    EXPECT_TRUE(Agent::CommandLine::Parse({"-h"}, help, error));
    EXPECT_TRUE(help.help);

    const std::vector<std::vector<std::string>> wrong = {
        {"--bogus"},   {"stray"},   {"--prefix"}, {"--log-level", "loud"}, {"--prefix", "a", "--prefix", "b"},
        {"--config="}, {"--strict"}};
    for (const auto& args : wrong) {
        Agent::AgentOptions ignored;
        error.clear();
        EXPECT_FALSE(Agent::CommandLine::Parse(args, ignored, error)) << args.front();
        EXPECT_FALSE(error.empty());
    }
}

TEST(AgentPaths, PrefixComesFromTheOptionOrFromTheExecutablesBinDirectory) {
    Agent::AgentOptions none;
    const auto Paths = [](const Agent::AgentPaths& paths) {
        return std::make_tuple(paths.prefix, paths.config, paths.policyDir, paths.moduleDir);
    };
    EXPECT_EQ(Paths(Agent::AgentPaths::Resolve(none, "/work/build/bin/corvane-agent", "/home/u")),
              std::make_tuple("/work/build/", "/work/build/conf/agent.json", "/work/build/conf/policies/",
                              "/work/build/module/"));

    EXPECT_EQ(Agent::AgentPaths::Resolve(none, "/tmp/corvane-agent", "/").prefix, "/usr/local/corvane/");
    EXPECT_EQ(Agent::AgentPaths::Resolve(none, "", "/").prefix, "/usr/local/corvane/");

    Agent::AgentOptions given;
    given.prefix = "inst";
    given.config = "my.json";
    given.policyDir = "/etc/pol";
    EXPECT_EQ(Paths(Agent::AgentPaths::Resolve(given, "/work/build/bin/corvane-agent", "/home/u")),
              std::make_tuple("/home/u/inst/", "/home/u/my.json", "/etc/pol/", "/home/u/inst/module/"));
}
