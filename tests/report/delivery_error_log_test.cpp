// The log of a sink's delivery failures: every cause shown, repeats counted, on a clock of the test's.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "DeliveryErrorLog.h"
#include "support/LogCapture.h"

TEST(DeliveryErrorLog, LogsEachDistinctErrorOnceThenCountsRepeatsPerIntervalAndTheRecovery) {
    TestSupport::LogCapture log("agent");
    std::chrono::steady_clock::time_point now{};
    Agent::DeliveryErrorLog errors("siem", "https://siem.example/in", [&] { return now; });
    const std::string nothing = "Server returned nothing (no headers, no data)";

    errors.Failed(nothing);
    now += std::chrono::seconds(2);
    for (int i = 0; i < 6; ++i) {
        errors.Failed("HTTP 400");
        now += std::chrono::seconds(4);
    }
    EXPECT_EQ(log.Count("cannot deliver alerts to siem (https://siem.example/in): " + nothing +
                        "; they wait in the spool and are retried"),
              1u);
    EXPECT_EQ(log.Count("siem (https://siem.example/in): HTTP 400; they wait"), 1u)
        << "the new cause at once";
    EXPECT_EQ(log.GetLines().size(), 2u) << "repeats within the interval are only counted";

    now += std::chrono::seconds(40);  // 64 s after the first 400
    errors.Failed("HTTP 400");
    EXPECT_TRUE(log.Contains("siem: HTTP 400 (6 more times in the last 64 s)"));
    EXPECT_FALSE(log.Contains(nothing + " (")) << "no repeats of it to report";

    // Past kMaxDistinct texts, the rest are counted together; the first cause, silent for an
    // interval, made room for one more.
    for (size_t i = 0; i < Agent::DeliveryErrorLog::kMaxDistinct + 3; ++i) {
        errors.Failed("timeout after " + std::to_string(i) + " ms");
    }
    EXPECT_EQ(log.Count("; they wait in the spool"), Agent::DeliveryErrorLog::kMaxDistinct + 1);

    log.Clear();
    now += std::chrono::seconds(1);
    errors.Failed("HTTP 400");
    errors.Recovered(20, 7);
    const auto lines = log.GetLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text,
              "cannot deliver alerts to siem: 4 more failures with other errors in the last 1 s");
    EXPECT_EQ(lines[1].text, "cannot deliver alerts to siem: HTTP 400 (1 more time in the last 1 s)");
    EXPECT_EQ(lines[2].text,
              "alerts reach siem (https://siem.example/in) again after 20 failed attempts; 7 "
              "delivered since");

    errors.Failed("HTTP 400");
    EXPECT_TRUE(log.Contains("HTTP 400; they wait in the spool")) << "a new outage logs its cause at once";
}
