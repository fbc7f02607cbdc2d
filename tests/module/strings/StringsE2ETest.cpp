#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "support/AgentRunner.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

// The real agent finds keywords in busy programs under /tmp: in the executable,
// and in a library that the executable loads.
namespace {

using TestSupport::AgentRunner;

// Spelled backwards so that this binary does not itself hold it.
std::string LibraryKeyword() {
    std::string keyword = "3b7a-rekram-os-enavroc";
    std::reverse(keyword.begin(), keyword.end());
    return keyword;
}

TEST(StringsE2ETest, KeywordsInTheExecutableAndInALoadedLibraryAreReported) {
    // Copies of the helper programs under /tmp, so they are flagged for a look.
    const TestSupport::TempDir dir("strings_e2e");
    auto copy = [&](const std::string& from) {
        const std::string to = dir.path() + "/" + std::filesystem::path(from).filename().string();
        std::filesystem::copy_file(from, to);
        return to;
    };
    const std::string library = copy(STRINGS_KEYWORD_LIBRARY);
    const TestSupport::ChildProcess pool({copy(STRINGS_BUSY_POOL)});
    const TestSupport::ChildProcess withLibrary({copy(STRINGS_BUSY_WITH_LIBRARY)});
    ASSERT_GT(pool.pid(), 0);
    ASSERT_GT(withLibrary.pid(), 0);
    AgentRunner agent("strings");
    // Only processes above the CPU warning are searched; 5 % holds for a busy
    // program even on a loaded machine.
    agent.WritePolicy("10001", "proc_detaction_feature",
                      R"({"enabled": true, "content": {"detaction_full_task": {
        "task_condition": {"start_time": 0, "repeat_interval": 1}, "report_score": 3,
        "score": {"tmp": 1, "hidden": 1, "deleted": 1, "loginothers": 3, "bip": 3, "cpu": 1, "strings": 3},
        "cpu_usage_warn": 500, "check_str_max_size_m": 10,
        "strings": ["stratum+tcp://", ")" +
                          LibraryKeyword() + R"(", "never-in-any-file-0c9e"]}}})");
    ASSERT_TRUE(agent.Start());

    Json::Value entry = agent.WaitForFinding("procdet_0001", pool.pid(), 0x40).entry;
    ASSERT_FALSE(entry.isNull()) << agent.ReadLog();
    EXPECT_EQ(entry["rule"].asUInt() & 0x60, 0x60u);
    EXPECT_EQ(entry["dt_strings"].asString(), "stratum+tcp://");
    EXPECT_FALSE(entry.isMember("dt_str_so"));

    entry = agent.WaitForFinding("procdet_0001", withLibrary.pid(), 0x40).entry;
    ASSERT_FALSE(entry.isNull()) << agent.ReadLog();
    EXPECT_EQ(entry["rule"].asUInt() & 0x60, 0x60u);
    EXPECT_EQ(entry["dt_strings"].asString(), LibraryKeyword());
    EXPECT_EQ(entry["dt_str_so"].asString(), library);
}

}  // namespace
