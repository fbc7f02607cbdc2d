#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

#include "StringsTestSupport.h"
#include "module/detaction/DetactionTestUtil.h"
#include "support/LogCapture.h"

namespace {

using Engine::ProcDetStrings;
using StringsTest::TempDir;

constexpr long kNoLimit = 1L << 30;

// What is found, across chunk ends, forced cuts and limits, is checked against a
// reference scan (StringsDifferentialTest); here, where the reader leaves the
// stream: one chunk when everything is found at once, two chunks for a limit of
// 5000, else the whole file.
TEST(StringsScanTest, ReadingStopsAtTheLimitPlusOneChunkOrWhenAllAreFound) {
    TempDir dir;
    std::string data(3 * 4096, '\n');
    data.replace(10, 5, "early");
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
