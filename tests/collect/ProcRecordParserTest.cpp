// The record parser on texts captured from /proc (tests/data/collect/<case>/).
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

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

auto Facts(const Record& r) {
    return std::make_tuple(r.pid, r.ppid, r.name, r.uid, r.euid, r.suid, r.gid, r.egid, r.sgid, r.capSetuid,
                           r.capSetgid, r.exePath, r.cmdline, r.startTime, r.startTimeSec);
}

// Every field of the record from captured texts; truncated and malformed texts are the SDK
// parsers' (ProcParsersTest).
TEST(ProcRecordParser, BuildsRecordsFromCapturedProcesses) {
    const ProcRecordParser parser(kBootTime, 100);
    const std::string python = "/root/.pyenv/versions/3.11.7/bin/python3";
    const std::pair<const char*, decltype(Facts(Record()))> cases[] = {
        // /bin/sleep started with uids 1005/1006/1007 and gids 1002/1003/1004: exec copied the
        // effective ids into the saved ones.
        {"sleep",
         {25250, 25207, "sleep", 1005u, 1006u, 1006u, 1002u, 1003u, 1003u, 0u, 0u, "/usr/bin/sleep",
          "/bin/sleep 30 0.5", 112428, kBootTime + 1124}},
        // A name with blanks and parentheses; root's capabilities.
        {"oddcomm",
         {25260, 25207, "a) b (c", 0u, 0u, 0u, 0u, 0u, 0u, 1u, 1u, python + ".11",
          python + " /tmp/capture.py /work/main/tests/data/collect", 112458, kBootTime + 1124}},
        // A kernel thread: no executable, no command line.
        {"kthread", {2, 0, "kthreadd", 0u, 0u, 0u, 0u, 0u, 0u, 1u, 1u, "", "", 24, kBootTime}},
        // A zombie keeps its identities and start time.
        {"zombie",
         {25261, 25207, "python3", 0u, 0u, 0u, 0u, 0u, 0u, 1u, 1u, "", "", 112489, kBootTime + 1124}},
    };
    for (const auto& [name, facts] : cases) {
        Record record;
        ASSERT_TRUE(parser.Build(Sample(name).Texts(), record)) << name;
        EXPECT_EQ(Facts(record), facts) << name;
    }

    // No record without a stat; CAP_SETUID is bit 7 and CAP_SETGID bit 6 of the effective set,
    // other sets do not count.
    const Sample sleep("sleep");
    Engine::ProcTexts texts = sleep.Texts();
    const std::string shortStat = sleep.stat.substr(0, sleep.stat.find(" 112428"));
    const std::string capStatus =
        "Uid:\t1\t1\t1\t1\nGid:\t2\t2\t2\t2\nCapPrm:\t00000000000000c0\nCapEff:\t0000000000000080\n";
    texts.stat = shortStat;
    Record record;
    EXPECT_FALSE(parser.Build(texts, record));
    texts = sleep.Texts();
    texts.status = capStatus;
    ASSERT_TRUE(parser.Build(texts, record));
    EXPECT_EQ(std::make_pair(record.capSetuid, record.capSetgid), std::make_pair(1u, 0u));
}

}  // namespace
