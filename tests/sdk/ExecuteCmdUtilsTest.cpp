#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>

#include "sdk/ExecuteCmdUtils.h"
#include "sdk/ProcessUtils.h"
#include "support/FileText.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

using SDK::ExecuteCmdUtils;

TEST(ExecuteCmdUtils, StatusAndCappedOutput) {
    // The agent ignores SIGPIPE; a command must not inherit that.
    signal(SIGPIPE, SIG_IGN);
    // The last case is far more than a pipe holds: the command must still run to its end.
    const struct {
        const char* command;
        size_t cap;
        int status;
        std::string output;
    } cases[] = {
        {"PATH=/a:/b; echo $PATH; echo err >&2", 4096, 0, "/a:/b\n"},
        {"exit 3", 4096, 3, ""},
        {"kill -9 $$", 4096, -1, ""},
        {"kill -PIPE $$; exit 0", 4096, -1, ""},
        {"", 4096, -1, ""},
        {"no_such_command_here", 4096, 127, ""},
        {"head -c 1000000 /dev/zero | tr '\\0' x; echo; exit 5", 100, 5, std::string(100, 'x')},
    };
    for (const auto& c : cases) {
        std::string output;
        EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd(c.command, output, c.cap), c.status) << c.command;
        EXPECT_EQ(output, c.output) << c.command;
    }
    signal(SIGPIPE, SIG_DFL);
}

TEST(ExecuteCmdUtils, TimeOutKillsTheWholeGroup) {
    const TestSupport::TempDir dir("exec");
    const std::string file = dir.path() + "/pid";
    std::string output;
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("echo started; sleep 300 & echo $! > " + file + "; sleep 301",
                                          output, 4096, 1),
              -1);
    EXPECT_EQ(output, "started\n");
    // The background sleep went with the shell.
    const unsigned int background = static_cast<unsigned int>(std::atoi(TestSupport::ReadText(file).c_str()));
    ASSERT_GT(background, 0u);
    EXPECT_TRUE(TestSupport::WaitFor([&] { return !SDK::ProcessUtils::IsProcessAlive(background); }, 2000));
}

}  // namespace
