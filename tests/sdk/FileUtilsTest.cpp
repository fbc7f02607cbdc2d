#include <Poco/DigestEngine.h>
#include <Poco/SHA2Engine.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "sdk/FileUtils.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

using TestSupport::TempDir;

using SDK::FileUtils;

// The digest as Poco computes it, apart from the agent's own digest code.
std::string Sha256(const std::string& path) {
    Poco::SHA2Engine engine(Poco::SHA2Engine::SHA_256);
    engine.update(TestSupport::ReadText(path));
    return Poco::DigestEngine::digestToHex(engine.digest());
}

TEST(FileUtils, Sha256MatchesSha256sumWithinLimit) {
    TempDir dir;
    std::string big;
    for (int i = 0; i < 200000; ++i) {
        big.push_back(static_cast<char>(i * 7 + (i >> 8)));  // several read chunks, all byte values
    }
    const std::string bigPath = dir.Write("big", big);
    const std::string emptyPath = dir.Write("empty", "");
    std::string hex;
    ASSERT_EQ(FileUtils::GetFileSha256(bigPath, hex, 0), 0);
    EXPECT_EQ(hex, Sha256(bigPath));
    ASSERT_EQ(FileUtils::GetFileSha256(bigPath, hex, static_cast<long>(big.size())), 0);
    EXPECT_EQ(hex, Sha256(bigPath));
    ASSERT_EQ(FileUtils::GetFileSha256(emptyPath, hex, 10), 0);
    EXPECT_EQ(hex, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");

    hex = "kept";
    EXPECT_NE(FileUtils::GetFileSha256(bigPath, hex, static_cast<long>(big.size()) - 1), 0);
    EXPECT_NE(FileUtils::GetFileSha256(dir.path() + "/missing", hex, 0), 0);
    EXPECT_NE(FileUtils::GetFileSha256(dir.path(), hex, 0), 0) << "a directory is no file";
    const std::string fifo = dir.path() + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_NE(FileUtils::GetFileSha256(fifo, hex, 0), 0) << "must not block on a FIFO";
    EXPECT_EQ(hex, "kept");
}

TEST(FileUtils, ReadFileWholeOrRefused) {
    TempDir dir;
    const std::string content("line1\nline2\0binary", 18);
    const std::string path = dir.Write("text", content);
    std::string out;
    ASSERT_EQ(FileUtils::ReadFile(path, out, 18), 0);
    EXPECT_EQ(out, content);
    out = "kept";
    EXPECT_NE(FileUtils::ReadFile(path, out, 17), 0);
    EXPECT_EQ(out, "kept");
    // /proc files report size 0 but have content.
    ASSERT_EQ(FileUtils::ReadFile("/proc/self/stat", out, 0), 0);
    EXPECT_EQ(out.compare(0, std::to_string(getpid()).size() + 1, std::to_string(getpid()) + " "), 0);
    EXPECT_NE(FileUtils::ReadFile("/proc/self/status", out, 10), 0);
    // ReadWholeFile's bound holds against what arrives, not against a stated size.
    ASSERT_EQ(FileUtils::ReadWholeFile(path, out, 18), 0);
    EXPECT_EQ(out, content);
    EXPECT_EQ(FileUtils::ReadWholeFile(path, out, 17), EFBIG);
    EXPECT_TRUE(out.empty());
}

}  // namespace
