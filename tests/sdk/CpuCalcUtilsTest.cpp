#include <gtest/gtest.h>

#include <time.h>

#include <algorithm>
#include <thread>

#include "KeptStatFiles.h"
#include "sdk/CpuCalcUtils.h"
#include "support/ChildProcess.h"

namespace {

using TestSupport::ChildProcess;

long long ClockMs(clockid_t clock) {
    struct timespec ts {};
    clock_gettime(clock, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000LL + ts.tv_nsec / 1000000LL;
}

// Usage of `pid` over about a second, after the first (lifetime) reading, with the
// same figure from the kernel's CPU clock of the process (independent of /proc).
bool UsageOverASecond(int pid, int& usage, int& expected) {
    clockid_t cpuClock;
    SDK::CpuCalcUtils calc;
    if (clock_getcpuclockid(pid, &cpuClock) != 0 || !calc.Init(pid) || !calc.GetCpuUsage(usage)) {
        return false;
    }
    const long long cpu0 = ClockMs(cpuClock);
    const long long wall0 = ClockMs(CLOCK_MONOTONIC);
    usleep(1000 * 1000);
    const bool ok = calc.GetCpuUsage(usage);
    expected = static_cast<int>((ClockMs(cpuClock) - cpu0) * 10000 / (ClockMs(CLOCK_MONOTONIC) - wall0));
    return ok;
}

TEST(CpuCalcUtils, BusyAndIdleChildren) {
    // Two spinning threads: the usage counts more than one CPU.
    ChildProcess busy([](const std::function<void()>& notify) {
        std::thread other([] {
            for (volatile unsigned long i = 0;; i = i + 1) {
            }
        });
        notify();
        for (volatile unsigned long i = 0;; i = i + 1) {
        }
    });
    ChildProcess idle({"/bin/sleep", "30"});
    ASSERT_GT(busy.pid(), 0);
    ASSERT_GT(idle.pid(), 0);

    // How much CPU the busy child gets depends on the machine's load, so it is
    // compared with the kernel's own account rather than with a fixed figure.
    int usage = -1;
    int expected = -1;
    ASSERT_TRUE(UsageOverASecond(busy.pid(), usage, expected));
    EXPECT_NEAR(usage, expected, std::max(1000, expected / 5));
    EXPECT_GT(usage, 1000);
    ASSERT_TRUE(UsageOverASecond(idle.pid(), usage, expected));
    EXPECT_LT(usage, 1000);

    SDK::CpuCalcUtils calc;
    ASSERT_TRUE(calc.Init(busy.pid()));
    SDK::KeptStatFiles& files = SDK::KeptStatFiles::Instance();
    const size_t kept = files.GetOpenCount();
    EXPECT_GT(kept, 0u) << "the sampler keeps stat open under /proc";
    busy.Kill();
    EXPECT_FALSE(calc.GetCpuUsage(usage)) << "the process is gone";
    EXPECT_FALSE(calc.Init(busy.pid()));
    EXPECT_EQ(files.GetOpenCount(), kept - 1) << "the file of a reaped process is closed at its next read";
}

}  // namespace
