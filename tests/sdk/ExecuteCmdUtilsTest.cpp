#include <gtest/gtest.h>
#include <signal.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "sdk/ExecuteCmdUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/ProcessUtils.h"

namespace {

using SDK::ExecuteCmdUtils;

TEST(ExecuteCmdUtils, StatusAndOutput) {
    std::string output;
    ASSERT_EQ(ExecuteCmdUtils::ExecuteCmd("PATH=/a:/b; echo $PATH; echo err >&2", output, 4096), 0);
    EXPECT_EQ(output, "/a:/b\n") << "only standard output is collected";
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("exit 3", output, 4096), 3);
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("kill -9 $$", output, 4096), -1);
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("", output, 4096), -1);
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("no_such_command_here", output, 4096), 127);
}

TEST(ExecuteCmdUtils, OutputCapDrainsTheRest) {
    std::string output;
    // Far more than a pipe holds: the command must still run to its end.
    ASSERT_EQ(
        ExecuteCmdUtils::ExecuteCmd("head -c 1000000 /dev/zero | tr '\\0' x; echo; exit 5", output, 100), 5);
    EXPECT_EQ(output, std::string(100, 'x'));
}

TEST(ExecuteCmdUtils, TimeOutKillsTheWholeGroup) {
    char file[] = "/tmp/sdk_exec_XXXXXX";
    const int fd = mkstemp(file);
    ASSERT_GE(fd, 0);
    close(fd);
    std::string output;
    EXPECT_EQ(
        ExecuteCmdUtils::ExecuteCmd(
            std::string("echo started; sleep 300 & echo $! > ") + file + "; sleep 301", output, 4096, 1),
        -1);
    EXPECT_EQ(output, "started\n");
    // The background sleep went with the shell.
    std::string text;
    ASSERT_EQ(SDK::FileUtils::ReadFile(file, text, 100), 0);
    std::remove(file);
    const unsigned int background = static_cast<unsigned int>(std::atoi(text.c_str()));
    ASSERT_GT(background, 0u);
    for (int i = 0; i < 100 && SDK::ProcessUtils::IsProcessAlive(background); ++i) {
        usleep(10 * 1000);
    }
    EXPECT_FALSE(SDK::ProcessUtils::IsProcessAlive(background));
}

TEST(ExecuteCmdUtils, CommandGetsDefaultSignalHandling) {
    // The agent ignores SIGPIPE; a command must not inherit that.
    signal(SIGPIPE, SIG_IGN);
    std::string output;
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("kill -PIPE $$; exit 0", output, 4096), -1);
    signal(SIGPIPE, SIG_DFL);
}

}  // namespace
