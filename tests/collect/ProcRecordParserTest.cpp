// The record parser on texts captured from /proc (tests/data/collect/<case>/).
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "ProcRecordParser.h"
#include "support/FileText.h"

namespace {

using Engine::ProcRecordParser;
using Record = Engine::ProcsMessage::procInfo;

constexpr int64_t kBootTime = 1795330744;

std::string ReadSample(const std::string& name, const std::string& file) {
    return TestSupport::ReadText(std::string(CORVANE_TEST_DATA_DIR) + "/collect/" + name + "/" + file);
}

struct Sample {
    std::string stat, status, cmdline, exe;
    explicit Sample(const std::string& name)
        : stat(ReadSample(name, "stat")),
          status(ReadSample(name, "status")),
          cmdline(ReadSample(name, "cmdline")),
          exe(ReadSample(name, "exe")) {}
    Engine::ProcTexts Texts() const { return {stat, status, cmdline, exe}; }
};

TEST(ProcRecordParser, BuildsRecordsFromCapturedProcesses) {
    const ProcRecordParser parser(kBootTime, 100);

    // /bin/sleep started with real/effective/saved uid 1005/1006/1007 and gid
    // 1002/1003/1004; exec copied the effective ids into the saved ones.
    Record sleep;
    ASSERT_TRUE(parser.Build(Sample("sleep").Texts(), sleep));
    EXPECT_EQ(25250, sleep.pid);
    EXPECT_EQ(25207, sleep.ppid);
    EXPECT_EQ("sleep", sleep.name);
    EXPECT_EQ(1005u, sleep.uid);
    EXPECT_EQ(1006u, sleep.euid);
    EXPECT_EQ(1006u, sleep.suid);
    EXPECT_EQ(1002u, sleep.gid);
    EXPECT_EQ(1003u, sleep.egid);
    EXPECT_EQ(1003u, sleep.sgid);
    EXPECT_EQ(0u, sleep.capSetuid);
    EXPECT_EQ(0u, sleep.capSetgid);
    EXPECT_EQ("/usr/bin/sleep", sleep.exePath);
    EXPECT_EQ("/bin/sleep 30 0.5", sleep.cmdline);
    EXPECT_EQ(112428, sleep.startTime);
    EXPECT_EQ(kBootTime + 1124, sleep.startTimeSec);

    // Fields after a name with blanks and parentheses: ProcParsersTest.
    Record odd;
    ASSERT_TRUE(parser.Build(Sample("oddcomm").Texts(), odd));
    EXPECT_EQ("a) b (c", odd.name);
    EXPECT_EQ(1u, odd.capSetuid);
    EXPECT_EQ(1u, odd.capSetgid);

    // A kernel thread: no executable, no command line.
    Record kthread;
    ASSERT_TRUE(parser.Build(Sample("kthread").Texts(), kthread));
    EXPECT_EQ(2, kthread.pid);
    EXPECT_EQ(0, kthread.ppid);
    EXPECT_EQ("kthreadd", kthread.name);
    EXPECT_TRUE(kthread.exePath.empty());
    EXPECT_TRUE(kthread.cmdline.empty());
    EXPECT_EQ(24, kthread.startTime);

    // A zombie keeps its identities and start time.
    Record zombie;
    ASSERT_TRUE(parser.Build(Sample("zombie").Texts(), zombie));
    EXPECT_EQ(25261, zombie.pid);
    EXPECT_EQ(0u, zombie.uid);
    EXPECT_EQ(112489, zombie.startTime);
    EXPECT_TRUE(zombie.cmdline.empty());
}

// Truncated and malformed texts are the SDK parsers' (ProcParsersTest); here, what
// the record adds: no record without a stat, and the two capabilities it takes.
TEST(ProcRecordParser, NoStatNoRecordAndCapabilitiesFromTheEffectiveSet) {
    const ProcRecordParser parser(kBootTime, 100);
    const Sample sleep("sleep");
    Engine::ProcTexts texts = sleep.Texts();
    const std::string shortStat = sleep.stat.substr(0, sleep.stat.find(" 112428"));
    texts.stat = shortStat;
    Record record;
    EXPECT_FALSE(parser.Build(texts, record));

    // CAP_SETUID is bit 7 and CAP_SETGID bit 6 of the effective set; other sets do not count.
    texts = sleep.Texts();
    const std::string capStatus =
        "Uid:\t1\t1\t1\t1\nGid:\t2\t2\t2\t2\nCapPrm:\t00000000000000c0\nCapEff:\t0000000000000080\n";
    texts.status = capStatus;
    ASSERT_TRUE(parser.Build(texts, record));
    EXPECT_EQ(1u, record.capSetuid);
    EXPECT_EQ(0u, record.capSetgid);
}

}  // namespace
