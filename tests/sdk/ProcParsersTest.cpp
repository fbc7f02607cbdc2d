#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "ProcParsers.h"
#include "support/FileText.h"

namespace {

std::string Sample(const std::string& name) {
    return TestSupport::ReadText(std::string(CORVANE_TEST_DATA_DIR) + "/proc/" + name);
}

TEST(ProcParsers, StatOfCapturedProcesses) {
    SDK::ProcStat stat;
    // comm "x) (y z" holds blanks and both parentheses.
    ASSERT_TRUE(SDK::ParseStatText(Sample("stat_comm_paren"), stat));
    EXPECT_EQ(stat.pid, 5293);
    EXPECT_EQ(stat.comm, "x) (y z");
    EXPECT_EQ(stat.state, 'S');
    EXPECT_EQ(stat.ppid, 5292);
    EXPECT_EQ(stat.pgrp, 5286);
    EXPECT_EQ(stat.session, 3251);
    EXPECT_EQ(stat.startTime, 53584);

    ASSERT_TRUE(SDK::ParseStatText(Sample("stat_python"), stat));
    EXPECT_EQ(stat.comm, "python3");
    EXPECT_EQ(stat.utime, 1u);
    EXPECT_EQ(stat.stime, 1u);
    EXPECT_EQ(stat.startTime, 53634);
}

TEST(ProcParsers, StatRejectsTruncatedAndGarbage) {
    const std::string good = Sample("stat_comm_paren");
    SDK::ProcStat stat;
    stat.pid = 77;
    // Cut inside comm, just after it, and before the start time (field 22).
    for (const std::size_t cut : {std::size_t{8}, good.find(" S ") + 1, good.find(" 53584")}) {
        EXPECT_FALSE(SDK::ParseStatText(good.substr(0, cut), stat)) << "cut at " << cut;
    }
    for (const char* garbage : {"", ")", "(", "12 x S 1", "abc (x) S 1 2 3", "(x) S 1 2 3 4 5 6 7 8 9",
                                "5 (x) SS 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 10",
                                "5 (x) S one 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 10"}) {
        EXPECT_FALSE(SDK::ParseStatText(garbage, stat)) << garbage;
    }
    EXPECT_EQ(stat.pid, 77) << "a failed parse must leave the output alone";
    // A stat ending right after the start time is complete enough.
    ASSERT_TRUE(SDK::ParseStatText("5 (x) R 1 1 1 0 -1 0 0 0 0 0 7 3 0 0 20 0 1 0 10", stat));
    EXPECT_EQ(stat.utime + stat.stime, 10u);
}

TEST(ProcParsers, StatusIdentitiesAndCapabilities) {
    SDK::ProcessUtils::procStatus status;
    ASSERT_TRUE(SDK::ParseStatusText(Sample("status_dropped"), status));
    EXPECT_EQ(status.name, "python3");
    EXPECT_EQ(status.ppid, 5286);
    EXPECT_EQ(status.uid, 1000u);
    EXPECT_EQ(status.euid, 1001u);
    EXPECT_EQ(status.suid, 1002u);
    EXPECT_EQ(status.fsuid, 1001u);
    EXPECT_EQ(status.gid, 65534u);
    EXPECT_EQ(status.egid, 65533u);
    EXPECT_EQ(status.sgid, 65532u);
    EXPECT_EQ(status.fsgid, 65533u);
    EXPECT_EQ(status.capPrm, 0u);
    EXPECT_EQ(status.capEff, 0u);
    EXPECT_EQ(status.capBnd, 0x1fffeffffffULL);

    ASSERT_TRUE(SDK::ParseStatusText(Sample("status_root"), status));
    EXPECT_EQ(status.name, "x) (y z");
    EXPECT_EQ(status.fsuid, 0u);
    EXPECT_EQ(status.capEff, 0x1fffeffffffULL);
}

TEST(ProcParsers, StatusRejectsIncompleteText) {
    const std::string good = Sample("status_dropped");
    SDK::ProcessUtils::procStatus status;
    // Truncated before the Gid line: identities would be half known.
    EXPECT_FALSE(SDK::ParseStatusText(good.substr(0, good.find("Gid:")), status));
    EXPECT_FALSE(SDK::ParseStatusText("Name:\tx\nUid:\t1\t2\t3\nGid:\t0\t0\t0\t0\n", status));
    EXPECT_FALSE(SDK::ParseStatusText("Name:\tx\nUid:\t1\t2\t3\tz\nGid:\t0\t0\t0\t0\n", status));
    EXPECT_FALSE(SDK::ParseStatusText("Name:\tx\nUid:\t1\t2\t3\t99999999999\nGid:\t0\t0\t0\t0\n", status));
    EXPECT_FALSE(SDK::ParseStatusText("garbage\n\n\x01", status));
    EXPECT_EQ(status.uid, 0xFFFFFFFFu) << "a failed parse must leave the output alone";

    // Unreadable capability sets stay 0 without failing the identities.
    ASSERT_TRUE(SDK::ParseStatusText("Name:\tx\nUid:\t5\t5\t5\t5\nGid:\t6\t6\t6\t6\nCapEff:\tzz\n", status));
    EXPECT_EQ(status.uid, 5u);
    EXPECT_EQ(status.capEff, 0u);
}

TEST(ProcParsers, CmdlineJoinedAndLimited) {
    EXPECT_EQ(SDK::JoinCmdlineText(Sample("cmdline_sleep"), 4096), "/tmp/x) (y z 300");
    EXPECT_EQ(SDK::JoinCmdlineText(Sample("cmdline_sleep"), 6), "/tmp/x");
    EXPECT_EQ(SDK::JoinCmdlineText(std::string("a\0\0b\0\0\0", 7), 100), "a  b");
    EXPECT_EQ(SDK::JoinCmdlineText(std::string(), 100), "");
    EXPECT_EQ(SDK::JoinCmdlineText(std::string("\0", 1), 100), "");
}

TEST(ProcParsers, SmallTexts) {
    long inode = 0;
    EXPECT_TRUE(SDK::ParseSocketLink("socket:[123456]", inode));
    EXPECT_EQ(inode, 123456);
    for (const char* other :
         {"pipe:[5]", "socket:[]", "socket:[12", "socket:[-3]", "/dev/null", "socket:[1x]"}) {
        EXPECT_FALSE(SDK::ParseSocketLink(other, inode)) << other;
    }

    long long uptimeMs = 0;
    EXPECT_TRUE(SDK::ParseUptimeText("1234.56 2000.00\n", uptimeMs));
    EXPECT_EQ(uptimeMs, 1234560);
    EXPECT_FALSE(SDK::ParseUptimeText("abc 1", uptimeMs));
}

}  // namespace
