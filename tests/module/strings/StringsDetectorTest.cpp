#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <set>
#include <string>

#include "StringsTestSupport.h"
#include "feature_detaction/ProcDetStringsCache.h"
#include "module/detaction/DetactionTestUtil.h"
#include "sdk/ProcessUtils.h"
#include "support/FakeProcsFullTask.h"
#include "support/LogCapture.h"

// The strings detector's file selection, reading stops, cache and process check.
// What a scan finds is checked against a reference scan in StringsDifferentialTest.
namespace {

using Engine::ProcDetStrings;
using StringsTest::Elf;
using StringsTest::TempDir;
using TestSupport::MakeProc;

constexpr long kNoLimit = 1L << 30;

class StringsDetectorTest : public ::testing::Test {
protected:
    StringsDetectorTest() { detector.Init({"aa", "bb", "zz"}, kNoLimit, 0x20, logger); }

    // The keywords found in `path`, or "-" when it was not matched.
    std::string Match(const std::string& path) {
        std::string result;
        return detector.MatchStrings(path, false, running, result) ? result : "-";
    }

    TempDir dir;
    TestSupport::LogCapture log{"proc_det_module"};
    Poco::Logger* const logger = &Poco::Logger::get("proc_det_module");
    ProcDetStrings detector;
    const bool running = true;
};

TEST_F(StringsDetectorTest, NeedToCheckSelectsRegularElfFilesWithinTheLimit) {
    const long limit = 1000;
    detector.Init({"x"}, limit, 0x20, logger);
    const std::string exact = dir.Write("exact", Elf(std::string(limit - Elf("").size(), 'a')));
    const std::string over = dir.Write("over", Elf(std::string(limit + 1 - Elf("").size(), 'a')));
    const std::string text = dir.Write("text", "#!/bin/sh\necho hello\n");
    const std::string tiny = dir.Write("tiny", "\177ELF");
    const std::string link = dir.path() + "/link";
    ASSERT_EQ(symlink(exact.c_str(), link.c_str()), 0);
    const std::string fifo = dir.path() + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);

    long size = -1;
    EXPECT_TRUE(detector.NeedToCheck(exact, size));
    EXPECT_EQ(size, limit);
    EXPECT_TRUE(detector.NeedToCheck(link, size));
    EXPECT_FALSE(detector.NeedToCheck(over, size));
    EXPECT_EQ(size, limit + 1);
    EXPECT_FALSE(detector.NeedToCheck(text, size));
    EXPECT_FALSE(detector.NeedToCheck(tiny, size));
    for (const std::string& path : {dir.path(), fifo, std::string("/dev/null")}) {
        EXPECT_FALSE(detector.NeedToCheck(path, size));
        EXPECT_TRUE(log.Contains(path + " is not regular file"));
    }
    EXPECT_FALSE(detector.NeedToCheck(dir.path() + "/missing", size));

    // Past the type test (a file swapped for a FIFO, say) anything is read; a FIFO
    // without a writer reads as empty rather than blocking the reader.
    bool isElf = true;
    EXPECT_TRUE(detector.IsElf(fifo, isElf));
    EXPECT_FALSE(isElf);
    std::set<std::string> matched;
    EXPECT_TRUE(detector.Strings(fifo, running, matched));
    EXPECT_TRUE(detector.Strings(dir.path(), running, matched));
    EXPECT_TRUE(matched.empty());
    // A path beyond 4096 characters is not opened at all.
    EXPECT_FALSE(detector.IsElf("/" + std::string(4096, 'a'), isElf));
}

std::set<std::string> ParseLines(const std::string& text, bool running = true) {
    std::set<std::string> files;
    FILE* stream = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    ProcDetStrings().ParseMapsStream(stream, running, files);
    fclose(stream);
    return files;
}

TEST_F(StringsDetectorTest, ParseMapsListsEveryMappedFileOnce) {
    std::set<std::string> files;
    FILE* sample = fopen(CORVANE_TEST_DATA_DIR "/strings/maps_sample", "r");
    ASSERT_NE(sample, nullptr);
    detector.ParseMapsStream(sample, running, files);
    fclose(sample);
    EXPECT_EQ(files.size(), 25u);
    for (const char* path : {"/tmp/mapsdemo/lib with blank.so", "/tmp/mapsdemo/gone.so",
                             "/usr/lib/x86_64-linux-gnu/libc.so.6"}) {
        EXPECT_EQ(files.count(path), 1u) << path;
    }

    // Odd lines: runs of blanks, five fields, a tab, pseudo-paths, no final newline.
    EXPECT_EQ(ParseLines("7f-7f r-xp 0 fe:00 1       /usr/lib/libx.so (deleted)\n"
                         "7f-7f r-xp 0 fe:00 1 /usr/lib/libx.so\n"
                         "7f-7f r--p 0 00:00 0                          [vdso]\n"
                         "7f-7f r--p 0 00:00 0\n"
                         "7f-7f r--p 0 fe:00 1\t/tab/field\n"
                         "\n"
                         "   \n"
                         "7f-7f r--p 0 fe:00 1 relative/path\n"
                         "7f-7f r--p 0 fe:00 1 /last/line  "),
              (std::set<std::string>{"/usr/lib/libx.so", "/last/line"}));
    EXPECT_TRUE(ParseLines("7f-7f r--p 0 fe:00 1 /a\n", false).empty());

    // A gone pid gives false. (A maps file read by pid: CheckProcessSearchesTheExecutableFirst.)
    files.clear();
    EXPECT_FALSE(detector.ParseMaps(0x3FFFFFFF, running, files));
    EXPECT_TRUE(files.empty());
}

// Where the reader leaves the stream: one chunk when everything is found at once,
// two chunks for a limit of 5000, else the whole file. Keywords over 4096 bytes are
// refused, the others kept; the task logs them once per policy taken, not at every
// cycle, and takes a negative size limit as it stands.
TEST_F(StringsDetectorTest, ReadingStopsAtTheLimitPlusOneChunkOrWhenAllAreFound) {
    std::string data(3 * 4096, '\n');
    data.replace(10, 5, "early");
    const std::string path = dir.Write("pos.bin", data);
    auto consumed = [&](const std::set<std::string>& words, long limit) {
        ProcDetStrings fresh;
        fresh.Init(words, limit, 0x20, nullptr);
        FILE* file = fopen(path.c_str(), "r");
        std::set<std::string> matched;
        std::set<std::string> remaining = words;
        fresh.CheckFileContent(matched, file, remaining);
        const long at = ftell(file);
        fclose(file);
        return at;
    };
    EXPECT_EQ(consumed({"early"}, kNoLimit), 4096);
    EXPECT_EQ(consumed({"missing"}, 5000), 8192);
    EXPECT_EQ(consumed({"missing"}, kNoLimit), 3 * 4096);

    const std::string overlong(5000, 'x');
    EXPECT_EQ(StringsTest::ScanContent(dir, "abc\n" + overlong + "\n", {"abc", overlong}, kNoLimit),
              (std::set<std::string>{"abc"}));
    auto task = DetactionTest::MakeInitedTask(DetactionTest::TaskSection(
        "{}", R"(, "check_str_max_size_m": -1, "strings": ["abc", ")" + overlong + "\"]"));
    for (int cycle = 0; cycle < 3; ++cycle) {
        task->PreCheckDetectors(60);
    }
    EXPECT_EQ(log.Count("keyword longer than 4096 bytes ignored"), 1u);
}

TEST_F(StringsDetectorTest, UnchangedFilesHitTheCacheChangedOnesAreReadAgain) {
    const std::string path = dir.Write("prog", Elf("\nxbbx\naa\n"));
    EXPECT_EQ(Match(path), "aa,bb");
    EXPECT_EQ(Match(path), "aa,bb");
    EXPECT_EQ(log.Count("CHECK file " + path + " str match 2"), 1u);

    // Same size, new content: the cached result stands.
    dir.Write("prog", Elf("\nxxxx\nzz\n"));
    EXPECT_EQ(Match(path), "aa,bb");
    // Same size, no longer ELF (all 'a', which a read would match): its header is read
    // again and it is skipped.
    dir.Write("prog", std::string(Elf("\nxxxx\nzz\n").size(), 'a'));
    EXPECT_EQ(Match(path), "-");

    // Another size: read at every call.
    dir.Write("prog", Elf("\nzz\n"));
    EXPECT_EQ(Match(path), "zz");
    EXPECT_EQ(Match(path), "zz");
    EXPECT_EQ(log.Count("CHECK file " + path + " str match 1"), 2u);
}

// A file that fails selection takes no place; at 200 files new ones are refused
// while cached ones still hit.
TEST_F(StringsDetectorTest, AFullCacheRefusesNewFilesButStillHits) {
    EXPECT_EQ(Match(dir.Write("text", "aa\n")), "-");
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(Match(dir.Write("f" + std::to_string(i), Elf("\naa\n"))), "aa") << i;
    }
    EXPECT_EQ(Match(dir.Write("fresh", Elf("\nbb\n"))), "-");
    EXPECT_EQ(Match(dir.path() + "/f0"), "aa");
    EXPECT_EQ(log.Count("CHECK file " + dir.path() + "/f0 "), 1u);
}

// Entries unused for half an hour go, at most once per ten minutes. A file whose
// header was found to be ELF is remembered by its stat once it has been quiet for
// over a second, and a hit then needs no header read while stat shows it untouched.
TEST(StringsCacheTest, CleaningAndFileIdentity) {
    Engine::ProcDetStringsCache cache;
    const time_t now = time(nullptr);
    ASSERT_NE(cache.Add("/recent", false, 0, now - 60), nullptr);
    ASSERT_NE(cache.Add("/old", false, 0, now - 5000), nullptr);
    cache.Clean(now);
    EXPECT_EQ(cache.Find("/old"), nullptr);
    EXPECT_NE(cache.Find("/recent"), nullptr);
    ASSERT_NE(cache.Add("/old", false, 0, now - 5000), nullptr);
    cache.Clean(now);
    EXPECT_NE(cache.Find("/old"), nullptr) << "cleaned again right away";

    Engine::ProcDetStringsCache::Entry& entry = *cache.Find("/recent");
    struct stat st {};
    st.st_ino = 7;
    st.st_ctim.tv_sec = now - 1;
    cache.Record(entry, {"b", "a"}, &st, now);
    EXPECT_TRUE(Engine::ProcDetStringsCache::Holds(entry, 0));
    EXPECT_FALSE(Engine::ProcDetStringsCache::Unchanged(entry, st)) << "changed within the last second";
    st.st_ctim.tv_sec = now - 2;
    cache.Use(entry, &st, now);
    EXPECT_TRUE(Engine::ProcDetStringsCache::Unchanged(entry, st));
    for (auto change : {+[](struct stat& s) { ++s.st_ino; }, +[](struct stat& s) { ++s.st_mtim.tv_nsec; },
                        +[](struct stat& s) { ++s.st_ctim.tv_nsec; }}) {
        struct stat other = st;
        change(other);
        EXPECT_FALSE(Engine::ProcDetStringsCache::Unchanged(entry, other));
    }
    cache.Record(entry, {}, nullptr, now);  // scanned through a link: no identity
    EXPECT_FALSE(Engine::ProcDetStringsCache::Unchanged(entry, st));
}

TEST_F(StringsDetectorTest, CheckProcessSearchesTheExecutableFirst) {
    const std::string exe = dir.Write("prog", Elf("\nbb\naa\n"));
    Engine::NumDetails numDetails;
    Engine::StrDetails strDetails;
    auto check = [&](const std::string& path, unsigned int flags) {
        log.Clear();
        strDetails.clear();
        EXPECT_TRUE(detector.CheckProcess(MakeProc(getpid(), path), flags, numDetails, strDetails));
        return flags;
    };

    // Not flagged by the mask: untouched and nothing read.
    EXPECT_EQ(check(exe, 0x01), 0x01u);
    EXPECT_TRUE(strDetails.empty());
    EXPECT_FALSE(log.Contains("CHECK file"));

    // A hit in the executable (mapped files then not examined) is met by DetactionE2ETest.
    // Arriving with STRINGS set: only the executable is examined.
    const std::string plain = dir.Write("plain", Elf("\nnothing\n"));
    check(plain, 0x60);
    EXPECT_TRUE(strDetails.empty());
    EXPECT_FALSE(log.Contains("try to check SOFILE"));
    // Else the mapped files in name order, passing over the executable, up to the first hit.
    const std::string pid = std::to_string(getpid());
    const std::string lib = dir.Write("z.so", Elf("\nzz\n"));
    dir.Write("proc/" + pid + "/maps", "1-2 r-xp 0 08:01 1 " + lib + "\n1-2 r-xp 0 08:01 1 " + plain +
                                           "\n1-2 r-xp 0 08:01 1 " + dir.Write("q.so", Elf("\nnone\n")) +
                                           "\n");
    SDK::ProcessUtils::SetProcRoot(dir.path() + "/proc");
    EXPECT_EQ(check(plain, 0x20), 0x60u);
    SDK::ProcessUtils::SetProcRoot("/proc");
    EXPECT_EQ(strDetails, (Engine::StrDetails{{"dt_strings", "zz"}, {"dt_str_so", lib}}));

    // A deleted executable is read through /proc/<pid>/exe.
    check(exe + " (deleted)", 0x24);
    EXPECT_TRUE(log.Contains("CHECK file /proc/" + pid + "/exe"));

    // An executable that cannot be stat'ed or is over the limit ends the examination.
    EXPECT_EQ(check(dir.path() + "/gone", 0x20), 0x20u);
    EXPECT_FALSE(log.Contains("try to check SOFILE"));
    detector.Init({"aa"}, 10, 0x20, logger);
    EXPECT_EQ(check(exe, 0x20), 0x20u);
    EXPECT_TRUE(log.Contains("str [" + exe + "] size:"));
    EXPECT_FALSE(log.Contains("try to check SOFILE"));
}

}  // namespace
