#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Poco/File.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/AgentRunner.h"

// The real agent finds keywords in busy programs under /tmp: in the executable,
// and in a library that the executable loads.
namespace {

using TestSupport::AgentRunner;

constexpr long kDeadlineMs = 60000;

std::string LibraryKeyword() {
    std::string keyword = "3b7a-rekram-os-enavroc";
    std::reverse(keyword.begin(), keyword.end());
    return keyword;
}

std::string Policy() {
    return R"({"enabled": true, "content": {"detaction_full_task": {
        "task_condition": {"start_time": 0, "repeat_interval": 1},
        "report_score": 3,
        "score": {"tmp": 1, "hidden": 1, "deleted": 1, "loginothers": 3, "bip": 3, "cpu": 1, "strings": 3},
        "illegal_ip_list": [], "biplib_url": "", "biplib_hash": "",
        "cpu_usage_warn": 2000, "check_str_max_size_m": 10,
        "strings": ["stratum+tcp://", ")" +
           LibraryKeyword() + R"(", "never-in-any-file-0c9e"],
        "ignore_filepath": []}}})";
}

// Copies of the helper programs in a directory of their own under /tmp, started
// as children and killed at the end.
class BusyPrograms {
public:
    BusyPrograms() {
        std::string pattern = "/tmp/corvane-strings-e2e-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("mkdtemp");
        }
        dir_ = pattern;
    }
    ~BusyPrograms() {
        for (pid_t child : children_) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
        Poco::File(dir_).remove(true);
    }

    std::string Copy(const std::string& from) {
        const std::string to = dir_ + "/" + from.substr(from.rfind('/') + 1);
        Poco::File(from).copyTo(to);
        return to;
    }

    pid_t Start(const std::string& program) {
        const pid_t child = fork();
        if (child == 0) {
            execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        children_.push_back(child);
        return child;
    }

private:
    std::string dir_;
    std::vector<pid_t> children_;
};

bool WaitForEntry(const AgentRunner& agent, pid_t pid, Json::Value& entry) {
    return agent.WaitForAlert(
        [&](const Json::Value& alert) {
            const auto entries =
                TestSupport::FindProcessEntries({alert}, "procdet_0001", [&](const Json::Value& item) {
                    return item.get("process_pid", 0).asInt() == pid &&
                           (item.get("rule", 0).asUInt() & 0x40) != 0;
                });
            if (entries.empty()) {
                return false;
            }
            entry = entries.front();
            return true;
        },
        kDeadlineMs);
}

TEST(StringsE2ETest, KeywordInTheExecutableIsReported) {
    BusyPrograms programs;
    const pid_t pid = programs.Start(programs.Copy(STRINGS_BUSY_POOL));
    AgentRunner agent("strings-exe");
    agent.WritePolicy("10001", "proc_detaction_feature", Policy());
    ASSERT_TRUE(agent.Start());

    Json::Value entry;
    ASSERT_TRUE(WaitForEntry(agent, pid, entry)) << agent.ReadLog();
    EXPECT_EQ(entry.get("rule", 0).asUInt() & 0x60, 0x60u);
    EXPECT_EQ(entry.get("dt_strings", "").asString(), "stratum+tcp://");
    EXPECT_FALSE(entry.isMember("dt_str_so"));
}

TEST(StringsE2ETest, KeywordInALoadedLibraryIsReportedWithTheLibrary) {
    BusyPrograms programs;
    const std::string library = programs.Copy(STRINGS_KEYWORD_LIBRARY);
    const pid_t pid = programs.Start(programs.Copy(STRINGS_BUSY_WITH_LIBRARY));
    AgentRunner agent("strings-so");
    agent.WritePolicy("10001", "proc_detaction_feature", Policy());
    ASSERT_TRUE(agent.Start());

    Json::Value entry;
    ASSERT_TRUE(WaitForEntry(agent, pid, entry)) << agent.ReadLog();
    EXPECT_EQ(entry.get("rule", 0).asUInt() & 0x60, 0x60u);
    EXPECT_EQ(entry.get("dt_strings", "").asString(), LibraryKeyword());
    EXPECT_EQ(entry.get("dt_str_so", "").asString(), library);
}

}  // namespace
