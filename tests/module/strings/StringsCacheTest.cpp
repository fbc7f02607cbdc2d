#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <memory>
#include <string>

#include "StringsTestSupport.h"
#include "support/FakeProcsFullTask.h"
#include "support/LogCapture.h"

namespace {

using Engine::ProcDetStrings;
using Engine::ProcDetStringsPeer;
using StringsTest::Elf;
using StringsTest::TempDir;
using TestSupport::MakeProc;

constexpr long kNoLimit = 1L << 30;

class StringsCacheTest : public ::testing::Test {
protected:
    StringsCacheTest() : log("proc_det_module") {
        detector.Init({"aa", "bb", "zz"}, kNoLimit, 0x20, StringsTest::ModuleLogger());
    }

    bool Match(const std::string& path, std::string& result) {
        return detector.MatchStrings(path, false, running, result);
    }

    TempDir dir;
    TestSupport::LogCapture log;
    ProcDetStrings detector;
    const bool running = true;
};

TEST_F(StringsCacheTest, UnchangedFilesHitTheCacheChangedOnesAreReadAgain) {
    const std::string path = dir.Write("prog", Elf("\nxbbx\naa\n"));
    std::string result;
    ASSERT_TRUE(Match(path, result));
    EXPECT_EQ(result, "aa,bb");
    ASSERT_TRUE(Match(path, result));
    EXPECT_EQ(result, "aa,bb");
    EXPECT_EQ(log.Count("CHECK file " + path + " str match 2"), 1u);

    // Same size, new content: the cached result stands.
    dir.Write("prog", Elf("\nxxxx\nzz\n"));
    ASSERT_TRUE(Match(path, result));
    EXPECT_EQ(result, "aa,bb");
    // Same size, no longer ELF: its header is read again and it is skipped.
    dir.Write("prog", std::string(Elf("\nxxxx\nzz\n").size(), 'a'));
    EXPECT_FALSE(Match(path, result));
    EXPECT_TRUE(log.Contains("[" + path + "] is not elf. ignore"));

    // Another size: read at every call, the entry keeping its first size.
    const long firstSize = static_cast<long>(Elf("\nxbbx\naa\n").size());
    dir.Write("prog", Elf("\nzz\n"));
    ASSERT_TRUE(Match(path, result));
    EXPECT_EQ(result, "zz");
    ASSERT_TRUE(Match(path, result));
    EXPECT_EQ(log.Count("CHECK file " + path + " str match 1"), 2u);
    EXPECT_EQ(ProcDetStringsPeer::Cache(detector).at(path).fileSize, firstSize);

    // Files that fail selection or cannot be read leave no result.
    const std::string text = dir.Write("text", "aa\n");
    EXPECT_FALSE(Match(text, result));
    EXPECT_EQ(ProcDetStringsPeer::Cache(detector).count(text), 0u);
}

TEST_F(StringsCacheTest, AFullCacheRefusesNewFilesButStillHits) {
    const std::string cached = dir.Write("cached", Elf("\naa\n"));
    std::string result;
    ASSERT_TRUE(Match(cached, result));
    auto& cache = ProcDetStringsPeer::Cache(detector);
    for (int i = 1; i < 200; ++i) {
        cache["/dummy/" + std::to_string(i)];
    }
    const std::string fresh = dir.Write("fresh", Elf("\nbb\n"));
    EXPECT_FALSE(Match(fresh, result));
    EXPECT_TRUE(log.Contains("strings cache is too match. 200"));
    EXPECT_EQ(cache.size(), 200u);
    ASSERT_TRUE(Match(cached, result));
    EXPECT_EQ(result, "aa");
    EXPECT_EQ(log.Count("CHECK file " + cached), 1u);
}

// Entries unused for half an hour go, at most once per ten minutes.
TEST_F(StringsCacheTest, FinishDropsLongUnusedEntriesNowAndThen) {
    auto& cache = ProcDetStringsPeer::Cache(detector);
    const time_t now = time(nullptr);
    cache["/recent"].lastAccess = now - 60;
    cache["/old"].lastAccess = now - 5000;
    detector.Finish();
    EXPECT_EQ(cache.count("/old"), 0u);
    EXPECT_EQ(cache.count("/recent"), 1u);
    cache["/old"].lastAccess = now - 5000;
    detector.Finish();
    EXPECT_EQ(cache.count("/old"), 1u) << "cleaned again right away";
}

TEST_F(StringsCacheTest, CheckProcessSearchesTheExecutableFirst) {
    const std::string exe = dir.Write("prog", Elf("\nbb\naa\n"));
    Engine::NumDetails numDetails;
    Engine::StrDetails strDetails;

    // Not flagged by the mask: untouched and nothing read.
    unsigned int flags = 0x01;
    EXPECT_TRUE(detector.CheckProcess(MakeProc(getpid(), exe), flags, numDetails, strDetails));
    EXPECT_EQ(flags, 0x01u);
    EXPECT_TRUE(strDetails.empty());
    EXPECT_FALSE(log.Contains("CHECK file"));

    // A hit in the executable: mapped files are not examined.
    flags = 0x20;
    EXPECT_TRUE(detector.CheckProcess(MakeProc(getpid(), exe), flags, numDetails, strDetails));
    EXPECT_EQ(flags, 0x60u);
    EXPECT_EQ(strDetails, (Engine::StrDetails{{"dt_strings", "aa,bb"}}));
    EXPECT_TRUE(log.Contains("Strings pid:" + std::to_string(getpid()) + " path:" + exe + " str:aa,bb"));
    EXPECT_FALSE(log.Contains("try to check SOFILE"));
    EXPECT_TRUE(numDetails.empty());

    // A hit in a mapped library is found by the end-to-end run (StringsE2ETest).
    const std::string plain = dir.Write("plain", Elf("\nnothing\n"));

    // Arriving with STRINGS set: only the executable is examined.
    log.Clear();
    flags = 0x60;
    strDetails.clear();
    EXPECT_TRUE(detector.CheckProcess(MakeProc(getpid(), plain), flags, numDetails, strDetails));
    EXPECT_TRUE(strDetails.empty());
    EXPECT_FALSE(log.Contains("try to check SOFILE"));

    // A deleted executable is read through /proc/<pid>/exe, which is the cache key.
    log.Clear();
    flags = 0x24;
    strDetails.clear();
    EXPECT_TRUE(detector.CheckProcess(MakeProc(getpid(), exe + " (deleted)"), flags, numDetails, strDetails));
    const std::string link = "/proc/" + std::to_string(getpid()) + "/exe";
    EXPECT_EQ(ProcDetStringsPeer::Cache(detector).count(link), 1u);
    EXPECT_TRUE(log.Contains("CHECK file " + link));

    // An executable that cannot be stat'ed or is over the limit ends the examination.
    log.Clear();
    flags = 0x20;
    EXPECT_TRUE(
        detector.CheckProcess(MakeProc(getpid(), dir.path() + "/gone"), flags, numDetails, strDetails));
    EXPECT_EQ(flags, 0x20u);
    EXPECT_TRUE(log.Contains("get stat of [" + dir.path() + "/gone" + "] failed."));
    EXPECT_FALSE(log.Contains("try to check SOFILE"));
    detector.Init({"aa"}, 10, 0x20, StringsTest::ModuleLogger());
    EXPECT_TRUE(detector.CheckProcess(MakeProc(getpid(), exe), flags, numDetails, strDetails));
    EXPECT_EQ(flags, 0x20u);
    EXPECT_TRUE(log.Contains("str [" + exe + "] size:"));
    EXPECT_FALSE(log.Contains("try to check SOFILE"));
}

}  // namespace
