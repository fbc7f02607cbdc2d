#include <gtest/gtest.h>
#include <time.h>

#include <thread>

#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/TimeUtils.h"

namespace {

using SDK::InnerCpuCtrlUtils;

long long MonotonicMs() {
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000LL + ts.tv_nsec / 1000000LL;
}

TEST(InnerCpuCtrlUtils, HoldsABusyThreadNearItsShare) {
    InnerCpuCtrlUtils::SetCpuShare(0);
    EXPECT_FALSE(InnerCpuCtrlUtils::IsEnabled());
    InnerCpuCtrlUtils::SetCpuShare(250);
    EXPECT_EQ(InnerCpuCtrlUtils::GetCpuShare(), 100);
    InnerCpuCtrlUtils::SetCpuShare(20);
    double ratio = 0;
    // A fresh thread, as the governor keeps its history per thread.
    std::thread worker([&ratio] {
        const long long wallStart = MonotonicMs();
        const unsigned long cpuStart = SDK::TimeUtils::GetCurrentSystemTickUsed();
        unsigned long lastTick = cpuStart;
        volatile unsigned long sink = 0;
        while (MonotonicMs() - wallStart < 1500) {
            for (int i = 0; i < 10000; ++i) {
                sink = sink + i;
            }
            // The pacing steps of a task loop.
            const unsigned long tick = SDK::TimeUtils::GetCurrentSystemTickUsed();
            const unsigned long diff = tick > lastTick ? tick - lastTick : lastTick - tick;
            if (diff > InnerCpuCtrlUtils::GetSuggestedRunTick()) {
                InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "test_task", tick, diff);
                lastTick = tick;
            }
        }
        const double cpu = static_cast<double>(SDK::TimeUtils::GetCurrentSystemTickUsed() - cpuStart);
        ratio = cpu / static_cast<double>(MonotonicMs() - wallStart);
    });
    worker.join();
    InnerCpuCtrlUtils::SetCpuShare(10);
    EXPECT_GT(ratio, 0.1);
    EXPECT_LT(ratio, 0.45);
}

}  // namespace
