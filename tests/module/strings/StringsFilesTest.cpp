#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <string>

#include "StringsTestSupport.h"
#include "support/LogCapture.h"

namespace {

using Engine::ProcDetStrings;
using StringsTest::Elf;
using StringsTest::TempDir;

TEST(StringsFilesTest, NeedToCheckSelectsRegularElfFilesWithinTheLimit) {
    TempDir dir;
    TestSupport::LogCapture log("proc_det_module");
    ProcDetStrings detector;
    const long limit = 1000;
    detector.Init({"x"}, limit, 0x20, StringsTest::ModuleLogger());

    const std::string exact = dir.Write("exact", Elf(std::string(limit - Elf("").size(), 'a')));
    const std::string over = dir.Write("over", Elf(std::string(limit + 1 - Elf("").size(), 'a')));
    const std::string text = dir.Write("text", "#!/bin/sh\necho hello\n");
    const std::string tiny = dir.Write("tiny",
                                       "\x7f"
                                       "ELF");
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
    EXPECT_TRUE(log.Contains("str [" + over + "] size:1001 > 1000"));
    EXPECT_FALSE(detector.NeedToCheck(text, size));
    EXPECT_TRUE(log.Contains("[" + text + "] is not elf. ignore"));
    EXPECT_FALSE(detector.NeedToCheck(tiny, size));
    EXPECT_TRUE(log.Contains("[" + tiny + "] is not elf. ignore"));
    for (const std::string& path : {dir.path(), fifo, std::string("/dev/null")}) {
        EXPECT_FALSE(detector.NeedToCheck(path, size));
        EXPECT_TRUE(log.Contains(path + " is not regular file"));
    }
    EXPECT_FALSE(detector.NeedToCheck(dir.path() + "/missing", size));
    EXPECT_TRUE(log.Contains("get stat of [" + dir.path() + "/missing" + "] failed."));

    // Past the type test (a file swapped for a FIFO, say) anything is read; a FIFO
    // without a writer reads as empty rather than blocking the reader.
    bool isElf = true;
    EXPECT_TRUE(detector.IsElf(fifo, isElf));
    EXPECT_FALSE(isElf);
    const bool running = true;
    std::set<std::string> matched;
    EXPECT_TRUE(detector.Strings(fifo, running, matched));
    EXPECT_TRUE(detector.Strings(dir.path(), running, matched));
    EXPECT_TRUE(matched.empty());
    // A path beyond 4096 characters is not opened at all.
    EXPECT_FALSE(detector.IsElf("/" + std::string(4096, 'a'), isElf));
}

std::set<std::string> ParseLines(const std::string& text, bool running = true) {
    ProcDetStrings detector;
    std::set<std::string> files;
    FILE* stream = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    detector.ParseMapsStream(stream, running, files);
    fclose(stream);
    return files;
}

TEST(StringsFilesTest, ParseMapsListsEveryMappedFileOnce) {
    ProcDetStrings detector;
    const bool running = true;
    std::set<std::string> files;
    FILE* sample = fopen(CORVANE_TEST_DATA_DIR "/strings/maps_sample", "r");
    ASSERT_NE(sample, nullptr);
    detector.ParseMapsStream(sample, running, files);
    fclose(sample);
    EXPECT_EQ(files.size(), 25u);
    EXPECT_EQ(files.count("/tmp/mapsdemo/lib with blank.so"), 1u);
    EXPECT_EQ(files.count("/tmp/mapsdemo/gone.so"), 1u);
    EXPECT_EQ(files.count("/usr/lib/x86_64-linux-gnu/libc.so.6"), 1u);
    for (const std::string& path : files) {
        EXPECT_EQ(path.front(), '/') << path;
        EXPECT_EQ(path.find("(deleted)"), std::string::npos) << path;
        EXPECT_NE(path.back(), '\n') << path;
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

    // A live process: our own maps hold the test binary; a gone pid gives false.
    char self[4097] = {0};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    files.clear();
    EXPECT_TRUE(detector.ParseMaps(getpid(), running, files));
    EXPECT_EQ(files.count(self), 1u);
    files.clear();
    EXPECT_FALSE(detector.ParseMaps(0x3FFFFFFF, running, files));
    EXPECT_TRUE(files.empty());
}

}  // namespace
