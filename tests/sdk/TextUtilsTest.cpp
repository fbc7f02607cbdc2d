#include <gtest/gtest.h>

#include <cstring>

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

}  // namespace
