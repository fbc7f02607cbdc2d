#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "sdk/HttpUtils.h"
#include "support/FileText.h"
#include "support/HttpTestServer.h"
#include "support/TempDir.h"

namespace {

const char* const kBody = "1.2.3.4\n5.6.7.8\n";

class HttpUtilsTest : public ::testing::Test {
protected:
    void SetUp() override {
        server_.Serve("/list", kBody);
        server_.Redirect("/loop", "/loop");
        target_ = dir_.path() + "/pupbip.dat";
        SDK::HttpUtils::GetInstance()->SetTimeouts(2, 3);
    }
    int Download(const std::string& path) {
        return SDK::HttpUtils::GetInstance()->Download(server_.Url(path), target_, "", "", "");
    }
    std::string Target() { return TestSupport::ReadText(target_); }

    TestSupport::HttpTestServer server_;
    TestSupport::TempDir dir_;
    std::string target_;
};

// Success, redirects and time-outs are also met by the address-file download
// tests of the detection module (NetstatBlacklistTest).
TEST_F(HttpUtilsTest, FailuresLeaveTheEarlierFileAndNoTemporaryFile) {
    ASSERT_EQ(Download("/list"), 200);
    EXPECT_EQ(Target(), kBody);
    struct stat st {};
    ASSERT_EQ(stat(target_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    std::ofstream(target_) << "earlier";
    EXPECT_EQ(Download("/missing"), 404);
    EXPECT_LT(Download("/loop"), 0) << "endless redirects";

    // Answers over the 10 MiB cap, announced or not, are cut off and discarded.
    const std::string huge(50u << 20, '1');
    server_.Serve("/huge", huge);
    server_.Serve("/huge-chunked", huge, true);
    for (const char* path : {"/huge", "/huge-chunked"}) {
        EXPECT_EQ(Download(path), -63) << path;
        EXPECT_EQ(Target(), "earlier") << path;
    }
    EXPECT_LT(SDK::HttpUtils::GetInstance()->Download(server_.Url("/list"), dir_.path() + "/no/such/dir/file",
                                                      "", "", ""),
              0);
    EXPECT_LT(SDK::HttpUtils::GetInstance()->Download("file:///etc/passwd", target_, "", "", ""), 0)
        << "only http and https";
    // An explicit proxy wins over the environment: this one does not exist.
    EXPECT_LT(
        SDK::HttpUtils::GetInstance()->Download(server_.Url("/list"), target_, "http://127.0.0.1:1", "", ""),
        0);
    EXPECT_EQ(Target(), "earlier");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()), {}), 1)
        << "a temporary file left";
}

}  // namespace
