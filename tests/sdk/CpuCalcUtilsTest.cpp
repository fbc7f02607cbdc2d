#include <gtest/gtest.h>

#include <unistd.h>

#include "sdk/CpuCalcUtils.h"
#include "sdk/ProcessUtils.h"
#include "support/TempDir.h"

namespace {

using TestSupport::TempDir;

// A busy process is flagged by the detection module's end-to-end run
// (DetactionE2ETest); here, the arithmetic on a fake /proc.
TEST(CpuCalcUtils, LifetimeAverageAndPidReuse) {
    TempDir root;
    const long hz = sysconf(_SC_CLK_TCK);
    // Started 50 s after boot, now 100 s after boot, 25 s of CPU: half a CPU.
    auto writeStat = [&](long startTicks) {
        root.Write("20/stat", "20 (job) R 1 20 20 0 -1 0 0 0 0 0 " + std::to_string(20 * hz) + " " +
                                  std::to_string(5 * hz) + " 0 0 20 0 1 0 " + std::to_string(startTicks));
    };
    writeStat(50 * hz);
    root.Write("uptime", "100.00 150.00\n");

    SDK::ProcessUtils::SetProcRoot(root.path());
    SDK::CpuCalcUtils calc;
    int usage = 0;
    ASSERT_TRUE(calc.Init(20));
    ASSERT_TRUE(calc.GetCpuUsage(usage));
    EXPECT_EQ(usage, 5000);
    // The pid now names a process started later.
    writeStat(60 * hz);
    EXPECT_FALSE(calc.GetCpuUsage(usage));
    SDK::ProcessUtils::SetProcRoot("/proc");
}

}  // namespace
