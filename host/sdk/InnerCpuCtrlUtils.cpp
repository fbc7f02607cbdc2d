#include "sdk/InnerCpuCtrlUtils.h"

#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <string>
#include <thread>

#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/TimeUtils.h"

namespace SDK {

namespace {

constexpr int kDefaultShare = 10;
constexpr unsigned long kSuggestedRunTickMs = 20;
// One call never holds a thread longer than this, so a stop request is seen soon.
constexpr long long kMaxSleepMs = 2000;

std::atomic<int> g_share{kDefaultShare};

// The thread's wall and CPU time at its previous adjustment; -1 before the first.
thread_local long long t_lastWallMs = -1;
thread_local unsigned long t_lastCpuMs = 0;

long long MonotonicMs() {
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000LL + ts.tv_nsec / 1000000LL;
}

void LogSleep(const char* file, int line, const char* taskName, long long usedMs, long long wallMs,
              long long sleepMs) {
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetAgentLogger();
    if (logger == nullptr || !logger->debug()) {
        return;
    }
    try {
        logger->debug(Poco::format("cpu governor: %s (%s:%d) used %ld ms of cpu in %ld ms, sleeping %ld ms",
                                   std::string(taskName != nullptr ? taskName : "?"),
                                   PathUtils::GetFileNameFromPath(file != nullptr ? file : "?"), line,
                                   static_cast<long>(usedMs), static_cast<long>(wallMs),
                                   static_cast<long>(sleepMs)));
    } catch (const std::exception&) {
        // The sleep matters, its log line does not.
    }
}

}  // namespace

void InnerCpuCtrlUtils::SetCpuShare(int percent) {
    g_share.store(std::clamp(percent, 0, 100));
}

int InnerCpuCtrlUtils::GetCpuShare() {
    return g_share.load();
}

bool InnerCpuCtrlUtils::IsEnabled() {
    return g_share.load() > 0;
}

unsigned long InnerCpuCtrlUtils::GetSuggestedRunTick() {
    return kSuggestedRunTickMs;
}

void InnerCpuCtrlUtils::AdjustThreadCpu(const char* file, int line, const char* taskName,
                                        unsigned long /*tick*/, unsigned long used) {
    // The caller's tick may be a cached reading a few ms old; here, where a sleep
    // is decided, the thread's clock is read afresh.
    const unsigned long tick = TimeUtils::GetThreadCpuMs();
    const int share = g_share.load();
    const long long nowMs = MonotonicMs();
    long long usedMs = 0;
    long long wallMs = 0;
    if (t_lastWallMs < 0) {
        // No history on this thread yet: take the caller's figure as if it had been
        // used flat out.
        usedMs = static_cast<long long>(used);
        wallMs = usedMs;
    } else {
        // Measured per thread, so that call sites sharing a thread are not billed twice.
        usedMs = tick >= t_lastCpuMs ? static_cast<long long>(tick - t_lastCpuMs) : 0;
        wallMs = nowMs - t_lastWallMs;
    }
    long long sleepMs = 0;
    if (share > 0 && share < 100) {
        sleepMs = std::clamp(usedMs * 100 / share - wallMs, 0LL, kMaxSleepMs);
    }
    if (sleepMs > 0) {
        LogSleep(file, line, taskName, usedMs, wallMs, sleepMs);
        std::this_thread::sleep_for(std::chrono::milliseconds(sleepMs));
    }
    t_lastWallMs = MonotonicMs();
    t_lastCpuMs = TimeUtils::GetThreadCpuMs();
}

}  // namespace SDK
