#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utmpx.h>

#include <cstdio>
#include <cstring>

#include "SessionLookup.h"
#include "sdk/ProcessUtils.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

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
    EXPECT_EQ(ppid, getpid());
    EXPECT_GT(startTime, 0);
    EXPECT_EQ(name, "sh");
    EXPECT_NE(std::string("RSD").find(state), std::string::npos) << state;
    std::string user;
    ASSERT_EQ(ProcessUtils::GetProcessUser(0, user), 0);
    EXPECT_EQ(user, "root");
    EXPECT_NE(ProcessUtils::GetProcessUser(0xFFFFFFF0u, user), 0);

    // The image's hash comes through the exe link and matches the file's.
    std::string viaLink;
    std::string viaFile;
    bool fromLink = false;
    ASSERT_EQ(ProcessUtils::GetProcessFileSha256(pid, "/bin/sh", viaLink, fromLink, 10 * 1024 * 1024), 0);
    EXPECT_TRUE(fromLink);
    ASSERT_EQ(ProcessUtils::GetProcessFileSha256(-1, resolved, viaFile, fromLink, 10 * 1024 * 1024), 0);
    EXPECT_FALSE(fromLink);
    EXPECT_EQ(viaLink, viaFile);
    EXPECT_NE(ProcessUtils::GetProcessFileSha256(pid, "/bin/sh", viaLink, fromLink, 100), 0);

    // Once it exits (a zombie until reaped) and is gone, every call reports failure.
    kill(pid, SIGKILL);
    for (int i = 0; i < 200 && ProcessUtils::IsProcessAlive(pid); ++i) {
        usleep(10 * 1000);
    }
    EXPECT_FALSE(ProcessUtils::IsProcessAlive(pid));
    child.Kill();
    EXPECT_NE(ProcessUtils::GetProcessCmdline(pid, text, 4096), 0);
    EXPECT_NE(ProcessUtils::GetProcessExePath(pid, text), 0);
    EXPECT_NE(ProcessUtils::GetProcessStatInfo(pid, &ppid, nullptr, nullptr), 0);
    ProcessUtils::procStatus status;
    EXPECT_NE(ProcessUtils::GetProcessStatusInfo(pid, status), 0);
    std::set<long> inodes;
    EXPECT_NE(ProcessUtils::GetProcessSocketFd(pid, inodes), 0);
}

TEST(ProcessUtils, FakeProcTreeWithBrokenFiles) {
    TempDir root;
    root.Write("10/stat", "10 (worker) S 1 10 10 0 -1 0 0 0 0 0 5 5 0 0 20 0 1 0 500");
    root.Write("10/cmdline", std::string("worker\0--flag\0", 14));
    root.Write("10/status", "Name:\tworker\nUid:\t0\t0\t0\t0\n");  // Gid line lost
    root.Write("11/stat", "11 (zomb) Z 1 11 11 0 -1 0 0 0 0 0 5 5 0 0 20 0 1 0 500");

    ProcessUtils::SetProcRoot(root.path());
    EXPECT_TRUE(ProcessUtils::IsProcessAlive(10));
    EXPECT_FALSE(ProcessUtils::IsProcessAlive(11));
    EXPECT_FALSE(ProcessUtils::IsProcessAlive(12));
    std::string text;
    EXPECT_EQ(ProcessUtils::GetProcessCmdline(10, text, 100), 0);
    EXPECT_EQ(text, "worker --flag");
    ProcessUtils::procStatus status;
    EXPECT_NE(ProcessUtils::GetProcessStatusInfo(10, status), 0);
    EXPECT_NE(ProcessUtils::GetProcessExePath(10, text), 0);
    std::string session;
    EXPECT_EQ(ProcessUtils::GetProcessSessionId(10, session), 0) << "no audit session: the stat session";
    EXPECT_EQ(session, "10");
    ProcessUtils::SetProcRoot("/proc");
}

TEST(ProcessUtils, SessionRecordsFromLogindAndUtmp) {
    TempDir dir;
    const std::string& sessions = dir.path();
    dir.Write("7", "# private\nUSER=bob\nREMOTE_HOST=192.0.2.9\nTTY=pts/1\nREALTIME=1600000000000000\n");
    dir.Write("9", "UID=0\nTTY=tty1\n");  // no user: no session record
    ProcessUtils::SessionInfo info;
    EXPECT_TRUE(SDK::HasLogindSession(sessions, "7"));
    ASSERT_EQ(SDK::ReadLogindSession(sessions, "7", info), 0);
    EXPECT_EQ(info.user, "bob");
    EXPECT_EQ(info.host, "192.0.2.9");
    EXPECT_EQ(info.terminal, "pts/1");
    EXPECT_EQ(info.loginTime, 1600000000L);
    EXPECT_FALSE(SDK::HasLogindSession(sessions, "8"));
    EXPECT_NE(SDK::ReadLogindSession(sessions, "9", info), 0);
    EXPECT_FALSE(SDK::HasLogindSession(sessions, "../7"));

    // utmp: a dead entry with the same session, then the login entry.
    const std::string utmp = sessions + "/utmp";
    std::FILE* file = std::fopen(utmp.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    struct utmpx entries[3];
    std::memset(entries, 0, sizeof(entries));
    entries[0].ut_type = DEAD_PROCESS;
    entries[0].ut_session = 4321;
    std::strncpy(entries[0].ut_user, "ghost", sizeof(entries[0].ut_user));
    entries[1].ut_type = USER_PROCESS;
    entries[1].ut_pid = 999;
    entries[1].ut_session = 4321;
    std::strncpy(entries[1].ut_user, "carol", sizeof(entries[1].ut_user));
    std::strncpy(entries[1].ut_line, "pts/4", sizeof(entries[1].ut_line));
    std::memset(entries[1].ut_host, 'h', sizeof(entries[1].ut_host));  // full field, no NUL
    entries[1].ut_tv.tv_sec = 1650000000;
    entries[2].ut_type = USER_PROCESS;
    entries[2].ut_pid = 5555;
    std::strncpy(entries[2].ut_user, "dave", sizeof(entries[2].ut_user));
    std::fwrite(entries, sizeof(entries[0]), 3, file);
    std::fclose(file);

    ASSERT_EQ(SDK::FindUtmpSession(utmp, 4321, info), 0);
    EXPECT_EQ(info.user, "carol");
    EXPECT_EQ(info.terminal, "pts/4");
    EXPECT_EQ(info.host, std::string(sizeof(entries[1].ut_host), 'h'));
    EXPECT_EQ(info.loginTime, 1650000000L);
    ASSERT_EQ(SDK::FindUtmpSession(utmp, 5555, info), 0);
    EXPECT_EQ(info.user, "dave");
    EXPECT_NE(SDK::FindUtmpSession(utmp, 1234, info), 0);
    EXPECT_NE(SDK::FindUtmpSession(sessions + "/missing", 4321, info), 0);
}

}  // namespace
