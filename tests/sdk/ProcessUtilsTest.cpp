#include <gtest/gtest.h>
#include <unistd.h>
#include <utmpx.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <tuple>

#include "SessionLookup.h"
#include "sdk/ProcessUtils.h"
#include "support/ChildProcess.h"
#include "support/FileText.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

using TestSupport::ChildProcess;
using TestSupport::TempDir;

using SDK::ProcessUtils;

// The parsers are tested on captured texts (ProcParsersTest); here, the reads of a live process.
TEST(ProcessUtils, FactsOfAnExecutedChildAndFailuresOnceItIsGone) {
    ChildProcess child({"/bin/sh", "-c", "while :; do sleep 5; done"});
    ASSERT_GT(child.pid(), 0);
    const int pid = child.pid();

    EXPECT_TRUE(ProcessUtils::IsProcessAlive(pid));
    std::string text;
    char resolved[4096];
    ASSERT_NE(realpath("/bin/sh", resolved), nullptr);
    ASSERT_EQ(ProcessUtils::GetProcessExePath(pid, text), 0);
    EXPECT_EQ(text, resolved);
    int ppid = 0;
    long startTime = -1;
    std::string name;
    char state = 0;
    ASSERT_EQ(ProcessUtils::GetProcessStatInfo(pid, &ppid, &startTime, &name, &state), 0);
    EXPECT_EQ(std::make_tuple(ppid, startTime > 0, name, std::string("RSD").find(state) != std::string::npos),
              std::make_tuple(getpid(), true, "sh", true))
        << state;
    // The image's hash comes through the exe link and matches the file's.
    std::string viaLink, viaFile;
    bool linked = false, fromFile = true;
    ASSERT_EQ(ProcessUtils::GetProcessFileSha256(pid, "/bin/sh", viaLink, linked, 10 * 1024 * 1024), 0);
    ASSERT_EQ(ProcessUtils::GetProcessFileSha256(-1, resolved, viaFile, fromFile, 10 * 1024 * 1024), 0);
    EXPECT_EQ(std::make_tuple(linked, fromFile, viaLink), std::make_tuple(true, false, viaFile));
    ProcessUtils::procStatus status;
    ASSERT_EQ(ProcessUtils::GetProcessStatusInfo(pid, status), 0);  // its file is now kept open
    EXPECT_EQ(status.ppid, getpid());

    // Once it exits (a zombie until reaped) and is gone, every call reports failure.
    kill(pid, SIGKILL);
    EXPECT_TRUE(TestSupport::WaitFor([&] { return !ProcessUtils::IsProcessAlive(pid); }));
    child.Kill();
    EXPECT_NE(ProcessUtils::GetProcessCmdline(pid, text, 4096), 0);
    EXPECT_NE(ProcessUtils::GetProcessExePath(pid, text), 0);
    EXPECT_NE(ProcessUtils::GetProcessStatInfo(pid, &ppid, nullptr, nullptr), 0);
    EXPECT_NE(ProcessUtils::GetProcessStatusInfo(pid, status), 0);
    std::set<long> inodes;
    EXPECT_NE(ProcessUtils::GetProcessSocketFd(pid, inodes), 0);
    std::string user;
    EXPECT_NE(ProcessUtils::GetProcessUser(0xFFFFFFF0u, user), 0);
}

// Status is read through a file kept open for the last pid: each read must show
// the process as it is now.
TEST(ProcessUtils, StatusFollowsAnIdentityChange) {
    int gate[2];
    ASSERT_EQ(0, pipe(gate));
    ChildProcess child([&](const std::function<void()>& notify) {
        char go;
        close(gate[1]);
        notify();
        if (read(gate[0], &go, 1) == 1 && setresuid(1000, 1000, 1000) == 0) {
            pause();
        }
    });
    close(gate[0]);
    ProcessUtils::procStatus status;
    ASSERT_EQ(ProcessUtils::GetProcessStatusInfo(child.pid(), status), 0);
    EXPECT_EQ(status.euid, 0u);
    EXPECT_EQ(write(gate[1], "x", 1), 1);
    close(gate[1]);
    EXPECT_TRUE(TestSupport::WaitFor([&] {
        return ProcessUtils::GetProcessStatusInfo(child.pid(), status) == 0 && status.euid == 1000u;
    }));
}

// The command line cut at its bound; a status that lost its Gid line.
TEST(ProcessUtils, FakeProcTreeWithBrokenFiles) {
    TempDir root;
    root.Write("10/cmdline", std::string("worker\0--flag\0", 14));
    root.Write("10/status", "Name:\tworker\nUid:\t0\t0\t0\t0\n");
    ProcessUtils::SetProcRoot(root.path());
    std::string text;
    EXPECT_EQ(ProcessUtils::GetProcessCmdline(10, text, 7), 0);
    EXPECT_EQ(text, "worker");
    ProcessUtils::procStatus status;
    EXPECT_NE(ProcessUtils::GetProcessStatusInfo(10, status), 0);
    ProcessUtils::SetProcRoot("/proc");
}

TEST(ProcessUtils, SessionRecordsFromUtmpByLoginPid) {
    TempDir dir;
    const std::string utmp = dir.path() + "/utmp";
    struct utmpx entries[2] = {};
    entries[0].ut_type = DEAD_PROCESS;
    entries[0].ut_pid = 999;
    std::strncpy(entries[0].ut_user, "ghost", sizeof(entries[0].ut_user));
    entries[1].ut_type = USER_PROCESS;
    entries[1].ut_pid = 999;
    entries[1].ut_session = 4321;
    std::strncpy(entries[1].ut_user, "carol", sizeof(entries[1].ut_user));
    std::strncpy(entries[1].ut_line, "pts/4", sizeof(entries[1].ut_line));
    std::memset(entries[1].ut_host, 'h', sizeof(entries[1].ut_host));  // full field, no NUL
    entries[1].ut_tv.tv_sec = 1650000000;
    std::ofstream(utmp, std::ios::binary).write(reinterpret_cast<const char*>(entries), sizeof(entries));

    ProcessUtils::SessionInfo info;
    ASSERT_EQ(SDK::FindUtmpSession(utmp, 999, info), 0);
    EXPECT_EQ(std::make_tuple(info.user, info.terminal, info.host, info.loginTime),
              std::make_tuple("carol", "pts/4", std::string(sizeof(entries[1].ut_host), 'h'), 1650000000L));
    EXPECT_EQ(SDK::ReadUtmpLoginPids(utmp), std::set<long>{999});
    EXPECT_NE(SDK::FindUtmpSession(utmp, 4321, info), 0) << "a session id is no login pid";
    EXPECT_NE(SDK::FindUtmpSession(dir.path() + "/missing", 999, info), 0);
}

// A real login (login on the pseudo-terminal of script) and, as under sshd, a process
// in a session of its own below it: found through its ancestors.
TEST(ProcessUtils, ProcessOfARealLoginFindsItsSession) {
    if (geteuid() != 0 || access("/usr/bin/login", X_OK) != 0 || access("/usr/bin/script", X_OK) != 0) {
        GTEST_SKIP() << "needs root, login and script";
    }
    // Without the utmp file (containers) login records nothing: made for the run.
    const bool madeUtmp = access(SDK::kUtmpFile, F_OK) != 0;
    ASSERT_TRUE(!madeUtmp || std::fclose(std::fopen(SDK::kUtmpFile, "w")) == 0);
    TempDir dir;
    const std::string pidFile = dir.path() + "/pid";
    const std::string input = "setsid -w sh -c 'echo $$ > " + pidFile + "; exec sleep 30'\n";
    // In a process group of its own, so that script and its input go with it at the end.
    ChildProcess login({"/usr/bin/setsid", "/bin/sh", "-c",
                        "(printf '%s' \"$1\"; sleep 30) | script -qfc 'login -f root' /dev/null", "sh",
                        input});
    ASSERT_TRUE(TestSupport::WaitFor([&] { return !TestSupport::ReadText(pidFile).empty(); }));
    const int pid = std::stoi(TestSupport::ReadText(pidFile));
    std::string session;
    ASSERT_EQ(ProcessUtils::GetProcessSessionId(pid, session), 0);
    ProcessUtils::SessionInfo info;
    ASSERT_EQ(ProcessUtils::GetSessionInfo(session, info), 0);
    EXPECT_EQ(info.user, "root");
    EXPECT_EQ(info.terminal.rfind("pts/", 0), 0u) << info.terminal;
    EXPECT_LE(std::labs(info.loginTime - time(nullptr)), 60L);
    kill(-login.pid(), SIGKILL);  // script's end hangs the terminal up: login and its shell go too
    if (madeUtmp) {
        unlink(SDK::kUtmpFile);
    }
}

// A process in pid and mount namespaces of its own is told apart from the host's.
TEST(ProcessUtils, ContextTellsAProcessInNamespacesOfItsOwn) {
    SDK::ProcessUtils::ProcessContext self;
    ASSERT_EQ(SDK::ProcessUtils::GetProcessContext(getpid(), self), 0);
    EXPECT_NE(self.pidNamespace, 0u);
    if (!self.hostNamespaces || geteuid() != 0) {
        GTEST_SKIP() << "needs root in the host's namespaces";
    }
    // unshare's child is pid 1 of the new namespace; its own pid is unshare's child here.
    TestSupport::ChildProcess contained(
        {"/usr/bin/unshare", "--pid", "--mount", "--fork", "/bin/sleep", "30"});
    int inner = -1;
    ASSERT_TRUE(TestSupport::WaitFor([&] {
        std::ifstream children("/proc/" + std::to_string(contained.pid()) + "/task/" +
                               std::to_string(contained.pid()) + "/children");
        return static_cast<bool>(children >> inner);
    }));
    SDK::ProcessUtils::ProcessContext context;
    ASSERT_TRUE(TestSupport::WaitFor([&] {
        return SDK::ProcessUtils::GetProcessContext(inner, context) == 0 &&
               context.pidNamespace != self.pidNamespace;
    }));
    EXPECT_NE(context.mountNamespace, self.mountNamespace);
    EXPECT_FALSE(context.hostNamespaces);
    EXPECT_TRUE(context.containerRuntime.empty());
}

}  // namespace
