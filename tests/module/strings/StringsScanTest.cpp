#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

#include "StringsTestSupport.h"
#include "module/detaction/DetactionTestUtil.h"
#include "support/LogCapture.h"

namespace {

using Engine::ProcDetStrings;
using StringsTest::ScanContent;
using StringsTest::TempDir;

constexpr long kNoLimit = 1L << 30;

// `data` with `text` written over it at `offset`.
std::string Plant(std::string data, size_t offset, const std::string& text) {
    data.replace(offset, text.size(), text);
    return data;
}

TEST(StringsScanTest, KeywordsAcrossChunkBoundariesAndForcedCuts) {
    TempDir dir;
    // A 10,000-byte string from offset 100: it crosses the chunk ends at 4096 and
    // 8192, and is cut at 8192 because it outgrows the carry area.
    std::string data(12000, '\0');
    data.replace(100, 10000, std::string(10000, 'q'));
    data = Plant(data, 100, "KWSTART1");
    data = Plant(data, 4092, "KWFIRST1");   // across the first chunk end
    data = Plant(data, 8188, "KWCUT001");   // across the forced cut
    data = Plant(data, 10092, "KWLAST01");  // ends where the string closes
    const std::set<std::string> keywords = {"KWSTART1", "KWFIRST1", "KWCUT001", "KWLAST01", "KWNONE01"};
    EXPECT_EQ(ScanContent(dir, data, keywords, kNoLimit),
              (std::set<std::string>{"KWCUT001", "KWFIRST1", "KWLAST01", "KWSTART1"}));

    // A short string straddling the first chunk end.
    std::string small(8000, '\n');
    small = Plant(small, 4090, "xxSTRADDLExx");
    EXPECT_EQ(ScanContent(dir, small, {"STRADDLE"}, kNoLimit), (std::set<std::string>{"STRADDLE"}));
}

TEST(StringsScanTest, OnlyClosedStringsAreTested) {
    TempDir dir;
    EXPECT_EQ(ScanContent(dir, "zz\nxxabcxx\n", {"abc"}, kNoLimit), (std::set<std::string>{"abc"}));
    // The last string runs to the end of the file: never tested.
    EXPECT_TRUE(ScanContent(dir, "zz\nxxabcxx", {"abc"}, kNoLimit).empty());
    // Several keywords in one string; case matters; blanks and non-ASCII bytes never match.
    EXPECT_EQ(ScanContent(dir,
                          "\x01gamma-alpha-beta\x01"
                          "ABC\x01",
                          {"beta", "alpha", "abc", "pha-b", "a b", "\xc3\xa9"}, kNoLimit),
              (std::set<std::string>{"alpha", "beta", "pha-b"}));
    EXPECT_TRUE(ScanContent(dir, "a b\n\xc3\xa9\n", {"a b", "\xc3\xa9"}, kNoLimit).empty());
    EXPECT_TRUE(ScanContent(dir, "abc\n", {}, kNoLimit).empty());
}

TEST(StringsScanTest, ReadingStopsAtTheLimitPlusOneChunkOrWhenAllAreFound) {
    TempDir dir;
    std::string data(3 * 4096, '\n');
    data = Plant(data, 10, "early");
    data = Plant(data, 8180, "edge");      // closed by the byte at 8184, inside the second chunk
    data = Plant(data, 8188, "boundary");  // closed by the byte at 8196, in the third chunk
    const std::set<std::string> keywords = {"early", "edge", "boundary"};
    EXPECT_TRUE(ScanContent(dir, data, keywords, 0).empty());
    EXPECT_EQ(ScanContent(dir, data, keywords, 4096), (std::set<std::string>{"early"}));
    EXPECT_EQ(ScanContent(dir, data, keywords, 5000), (std::set<std::string>{"early", "edge"}));
    EXPECT_EQ(ScanContent(dir, data, keywords, 8193), keywords);

    // Where the reader leaves the stream: one chunk when everything is found at once,
    // two chunks for a limit of 5000.
    const std::string path = dir.Write("pos.bin", data);
    auto consumed = [&](const std::set<std::string>& words, long limit) {
        ProcDetStrings detector;
        detector.Init(words, limit, 0x20, nullptr);
        FILE* file = fopen(path.c_str(), "r");
        std::set<std::string> matched;
        std::set<std::string> remaining = words;
        detector.CheckFileContent(matched, file, remaining);
        const long at = ftell(file);
        fclose(file);
        return at;
    };
    EXPECT_EQ(consumed({"early"}, kNoLimit), 4096);
    EXPECT_EQ(consumed({"missing"}, 5000), 8192);
    EXPECT_EQ(consumed({"missing"}, kNoLimit), 3 * 4096);
}

TEST(StringsScanTest, OverlongKeywordsAreRefusedOthersKept) {
    TempDir dir;
    TestSupport::LogCapture log("proc_det_module");
    const std::string overlong(5000, 'x');
    std::string data = "abc\n" + overlong + "\n";
    ProcDetStrings detector;
    detector.Init({"abc", overlong}, kNoLimit, 0x20, StringsTest::ModuleLogger());
    const std::string path = dir.Write("long.bin", data);
    const bool running = true;
    std::set<std::string> matched;
    ASSERT_TRUE(detector.Strings(path, running, matched));
    EXPECT_EQ(matched, (std::set<std::string>{"abc"}));

    // The task logs them once per policy taken, not at every cycle; a negative size
    // limit is taken as it stands.
    auto task = DetactionTest::MakeInitedTask(DetactionTest::TaskSection(
        "{}", R"(, "check_str_max_size_m": -1, "strings": ["abc", ")" + overlong + "\"]"));
    for (int cycle = 0; cycle < 3; ++cycle) {
        task->PreCheckDetectors(60);
    }
    EXPECT_EQ(log.Count("keyword longer than 4096 bytes ignored"), 1u);
}

}  // namespace
