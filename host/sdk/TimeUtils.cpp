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
    return static_cast<unsigned long>(ClockMs(CLOCK_THREAD_CPUTIME_ID));
}

}  // namespace SDK
