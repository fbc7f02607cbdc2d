#include <Poco/Message.h>
#include <gtest/gtest.h>

#include <regex>
#include <utility>

#include "sdk/LoggerUtils.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

using SDK::LoggerUtils;

TEST(LoggerUtils, FormattedLinesInSharedAndOwnFiles) {
    TestSupport::TempDir dir;
    auto Read = [&](const std::string& name) { return TestSupport::ReadText(dir.path() + "/" + name); };
    SDK::LogSettings settings;
    settings.directory = dir.path();
    settings.level = "information";
    LoggerUtils* utils = LoggerUtils::GetInstance();
    utils->Setup(settings);
    Poco::Logger* shared = utils->GetModuleLogger("shared_module", false);
    Poco::Logger* own = utils->GetModuleLogger("own_module", true);
    ASSERT_NE(shared, nullptr);
    ASSERT_NE(own, nullptr);
    shared->log(Poco::Message("shared_module", "hello 1", Poco::Message::PRIO_INFORMATION, "Src.cpp", 12));
    shared->debug("below the level");
    own->error("own line");

    const std::string agentLog = Read("agent.log");
    const std::regex line(
        R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[Information\] shared_module: hello 1 \(Src\.cpp:12\)\n)");
    EXPECT_TRUE(std::regex_search(agentLog, line)) << agentLog;
    EXPECT_EQ(agentLog.find("below the level"), std::string::npos);
    EXPECT_EQ(agentLog.find("own line"), std::string::npos);
    EXPECT_NE(Read("own_module.log").find("[Error] own_module: own line"), std::string::npos);
    // A new level reaches every logger handed out; a name that is no level changes nothing.
    utils->SetLevel("error");
    utils->SetLevel("nonsense");
    EXPECT_EQ(std::make_pair(shared->getLevel(), own->getLevel()),
              std::make_pair(int(Poco::Message::PRIO_ERROR), int(Poco::Message::PRIO_ERROR)));

    // A log directory that cannot be made falls back to stderr instead of failing.
    settings.directory = "/proc/self/no_such_dir";
    utils->Setup(settings);
    EXPECT_NE(utils->GetModuleLogger("shared_module", false), nullptr);
    // Back to stderr so that no logger keeps a file of the removed directory open.
    SDK::LogSettings console;
    console.target = "stderr";
    utils->Setup(console);
}

}  // namespace
