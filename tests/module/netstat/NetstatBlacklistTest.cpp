#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "NetstatTestUtil.h"
#include "feature_detaction/ProcDetNetstat.h"
#include "module/ModuleTestUtil.h"
#include "sdk/HttpUtils.h"
#include "sdk/PathUtils.h"
#include "support/HttpTestServer.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/TestEngine.h"

namespace {

using Engine::ProcDetNetstat;
using ModuleTest::Sha256Hex;
using NetstatTest::Ip;

class NetstatBlacklistTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(prefix + "/conf");
        SDK::PathUtils::SetInstallationPath(prefix + "/");
        ProcDetNetstat::ResetRetryClockForTest();
    }

    TestSupport::TestEngine env;
    TestSupport::HttpTestServer server;
    TestSupport::TempDir dir{"netstat_bip"};
    const std::string prefix = dir.path();
    const std::string libPath = prefix + "/conf/pupbip.dat";
};

TEST_F(NetstatBlacklistTest, AddressFileLinesAndLimits) {
    ProcDetNetstat detector;
    const std::string content = " 10.0.0.1 \n\nbad\n10.0.0.2\r\n255.255.255.255\n\t10.0.0.3\t\n";
    const std::string file = dir.Write("list.dat", content);
    std::set<long> out = {42};
    ASSERT_TRUE(detector.LoadLib(file, Sha256Hex(content), out));
    EXPECT_EQ(out, (std::set<long>{42, Ip("10.0.0.1"), Ip("10.0.0.2"), Ip("10.0.0.3")}));

    // A wrong digest, a missing file, a directory.
    out.clear();
    EXPECT_FALSE(detector.LoadLib(file, Sha256Hex("other"), out));
    EXPECT_FALSE(detector.LoadLib(prefix + "/absent.dat", Sha256Hex(""), out));
    EXPECT_FALSE(detector.LoadLib(prefix + "/conf", Sha256Hex(""), out));
    EXPECT_TRUE(out.empty());

    // 10 MiB is the largest file taken.
    std::string big = "10.0.0.4\n";
    big.resize(0xA00000, ' ');
    dir.Write("list.dat", big);
    EXPECT_TRUE(detector.LoadLib(file, Sha256Hex(big), out));
    EXPECT_EQ(out, std::set<long>{Ip("10.0.0.4")});
    big.push_back(' ');
    dir.Write("list.dat", big);
    out.clear();
    EXPECT_FALSE(detector.LoadLib(file, Sha256Hex(big), out));
    EXPECT_TRUE(out.empty());
}

TEST_F(NetstatBlacklistTest, FailedDownloadIsRetriedAtMostEveryFiveMinutes) {
    TestSupport::LogCapture log("proc_det_module");
    ProcDetNetstat detector;
    detector.SetBlackip({Ip("10.9.9.9")});
    detector.SetBlackipLib(server.Url("/missing.dat"), Sha256Hex("x"));

    // The policy's own addresses need no library.
    EXPECT_TRUE(detector.IsBlackIp(Ip("10.9.9.9")));
    EXPECT_EQ(server.Requests("/missing.dat"), 0);

    EXPECT_FALSE(detector.IsBlackIp(Ip("10.0.0.1")));
    EXPECT_EQ(server.Requests("/missing.dat"), 1);
    EXPECT_TRUE(
        log.Contains("download failed. [" + server.Url("/missing.dat") + "] [" + libPath + "] [404]"));
    EXPECT_FALSE(detector.IsBlackIp(Ip("10.0.0.1")));
    // The clock is shared by every detector of the process.
    ProcDetNetstat other;
    other.SetBlackipLib(server.Url("/missing.dat"), Sha256Hex("x"));
    EXPECT_FALSE(other.IsBlackIp(Ip("10.0.0.1")));
    EXPECT_EQ(server.Requests("/missing.dat"), 1);

    ProcDetNetstat::ResetRetryClockForTest();
    EXPECT_FALSE(detector.IsBlackIp(Ip("10.0.0.1")));
    EXPECT_EQ(server.Requests("/missing.dat"), 2);

    // Without both a location and a digest nothing is fetched.
    ProcDetNetstat::ResetRetryClockForTest();
    detector.SetBlackipLib(server.Url("/missing.dat"), "");
    EXPECT_FALSE(detector.IsBlackIp(Ip("10.0.0.1")));
    detector.SetBlackipLib("", Sha256Hex("x"));
    EXPECT_FALSE(detector.IsBlackIp(Ip("10.0.0.1")));
    EXPECT_EQ(server.Requests("/missing.dat"), 2);

    // A server that never answers costs one time-out, and the lookup goes on.
    sockaddr_in addr{};
    const int silent = NetstatTest::Listen("127.0.0.1", addr);
    ASSERT_GE(silent, 0);
    SDK::HttpUtils::GetInstance()->SetTimeouts(2, 2);
    const std::string silentUrl = "http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "/bip.dat";
    detector.SetBlackipLib(silentUrl, Sha256Hex("x"));
    EXPECT_FALSE(detector.IsBlackIp(Ip("10.0.0.1")));
    SDK::HttpUtils::GetInstance()->SetTimeouts(10, 120);
    close(silent);
    EXPECT_TRUE(log.Contains("download failed. [" + silentUrl + "]"));
    EXPECT_FALSE(std::filesystem::exists(libPath));
}

// A file failing its digest is kept on disk but never loaded; the right digest takes the file
// on disk without a download; a good download (through a redirect) is loaded once and kept.
// (A failed download leaves the earlier file: HttpUtilsTest.)
TEST_F(NetstatBlacklistTest, OnlyAFileMatchingItsDigestIsLoadedAndAGoodOneIsKept) {
    const std::string content = "10.0.0.2\r\n10.0.0.3\r\n";
    server.Serve("/bip.dat", content);
    server.Redirect("/moved", "/bip.dat");
    ProcDetNetstat wrong;
    wrong.SetBlackipLib(server.Url("/bip.dat"), Sha256Hex("another file"));
    EXPECT_FALSE(wrong.IsBlackIp(Ip("10.0.0.2")));
    EXPECT_EQ(server.Requests("/bip.dat"), 1);
    EXPECT_EQ(TestSupport::ReadText(libPath), content);
    std::filesystem::remove(libPath);

    ProcDetNetstat::ResetRetryClockForTest();
    ProcDetNetstat detector;
    detector.SetBlackipLib(server.Url("/moved"), Sha256Hex(content));
    EXPECT_TRUE(detector.IsBlackIp(Ip("10.0.0.2")));
    EXPECT_EQ(std::make_pair(server.Requests("/moved"), server.Requests("/bip.dat")), std::make_pair(1, 2));
    EXPECT_EQ(TestSupport::ReadText(libPath), content);
    {
        ProcDetNetstat::ResetRetryClockForTest();
        ProcDetNetstat onDisk;
        onDisk.SetBlackipLib(server.Url("/bip.dat"), Sha256Hex(content));
        EXPECT_TRUE(onDisk.IsBlackIp(Ip("10.0.0.3")));
        EXPECT_EQ(server.Requests("/bip.dat"), 2) << "the file on disk is good: no download";
    }

    // Loaded for good: no further fetch, not even for a new location and digest.
    ProcDetNetstat::ResetRetryClockForTest();
    EXPECT_FALSE(detector.IsBlackIp(Ip("10.0.0.99")));
    detector.SetBlackipLib(server.Url("/other.dat"), Sha256Hex("other"));
    EXPECT_TRUE(detector.IsBlackIp(Ip("10.0.0.3")));
    EXPECT_EQ(server.Requests("/other.dat"), 0);
}

}  // namespace
