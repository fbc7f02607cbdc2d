#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <set>

#include "sdk/CryptoCodeUtils.h"
#include "sdk/SecureC.h"

namespace {

TEST(SecureC, CopiesAndFormatsOnlyWithinBounds) {
    char buffer[8];
    std::memset(buffer, 'z', sizeof(buffer));
    EXPECT_EQ(memcpy_s(buffer, sizeof(buffer), "12345678", 8), 0);
    EXPECT_EQ(std::memcmp(buffer, "12345678", 8), 0);
    EXPECT_NE(memcpy_s(buffer, 4, "abcdefgh", 5), 0);
    EXPECT_EQ(buffer[0], '1') << "nothing copied on a refused copy";
    EXPECT_NE(memcpy_s(nullptr, 8, "a", 1), 0);
    EXPECT_NE(memcpy_s(buffer, 8, nullptr, 1), 0);
    EXPECT_NE(memcpy_s(buffer + 2, 6, buffer, 4), 0) << "overlap";
    EXPECT_EQ(memcpy_s(buffer + 4, 4, buffer, 4), 0) << "adjacent areas do not overlap";

    char text[8];
    EXPECT_EQ(sprintf_s(text, sizeof(text), "%d-%s", 42, "ab"), 5);
    EXPECT_STREQ(text, "42-ab");
    EXPECT_EQ(sprintf_s(text, sizeof(text), "%s", "1234567"), 7);
    EXPECT_EQ(sprintf_s(text, sizeof(text), "%s", "12345678"), -1);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(sprintf_s(text, 0, "%s", "x"), -1);
    EXPECT_EQ(sprintf_s(nullptr, 8, "%s", "x"), -1);
}

TEST(CryptoCodeUtils, RandomVersion4Uuids) {
    const std::regex v4("^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$");
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        const std::string uuid = SDK::CryptoCodeUtils::GenerateUUID();
        EXPECT_TRUE(std::regex_match(uuid, v4)) << uuid;
        seen.insert(uuid);
    }
    EXPECT_EQ(seen.size(), 100u);
}

}  // namespace
