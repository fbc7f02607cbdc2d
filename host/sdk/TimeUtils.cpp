#include "sdk/TimeUtils.h"

#include <time.h>

namespace SDK {

namespace {

long ClockMs(clockid_t clock) {
    struct timespec ts {};
    if (clock_gettime(clock, &ts) != 0) {
        return 0;
    }
    return static_cast<long>(ts.tv_sec) * 1000L + static_cast<long>(ts.tv_nsec / 1000000L);
}

}  // namespace

long TimeUtils::GetCurrentTimestampS() {
    return static_cast<long>(time(nullptr));
}

long TimeUtils::GetCurrentTimestampMs() {
    return ClockMs(CLOCK_REALTIME);
}

unsigned long TimeUtils::GetCurrentSystemTickUsed() {
    // The governor's checks ask for this between every two processes; the thread
    // CPU clock is a system call, the coarse wall clock is not. A thread cannot use
    // more CPU than wall time passes, so within kFreshMs of the last reading that
    // reading is still right to within kFreshMs plus one tick of the coarse clock,
    // far below the governor's 20 ms run tick.
    constexpr long kFreshMs = 2;
    thread_local long lastWallMs = -1;
    thread_local unsigned long lastCpuMs = 0;
    const long wallMs = ClockMs(CLOCK_MONOTONIC_COARSE);
    if (lastWallMs >= 0 && wallMs >= lastWallMs && wallMs - lastWallMs < kFreshMs) {
        return lastCpuMs;
    }
    lastWallMs = wallMs;
    lastCpuMs = GetThreadCpuMs();
    return lastCpuMs;
}

unsigned long TimeUtils::GetThreadCpuMs() {
    return static_cast<unsigned long>(ClockMs(CLOCK_THREAD_CPUTIME_ID));
}

}  // namespace SDK
