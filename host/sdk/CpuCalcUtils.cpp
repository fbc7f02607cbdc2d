#include "sdk/CpuCalcUtils.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "KeptStatFiles.h"
#include "sdk/ProcParsers.h"
#include "sdk/ProcessUtils.h"

namespace SDK {

namespace {

// Below one clock tick (10 ms at 100 Hz) the tick counters cannot measure usage.
constexpr long long kMinIntervalMs = 10;

long long MonotonicMs() {
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000LL + ts.tv_nsec / 1000000LL;
}

long long TicksPerSecond() {
    static const long hz = sysconf(_SC_CLK_TCK);
    return hz > 0 ? hz : 100;
}

bool ReadProcStat(int pid, ProcStat& stat) {
    return KeptStatFiles::Instance().Read(pid, stat);
}

// Seconds since boot from <root>/uptime, read into a stack buffer (a few dozen bytes).
bool ReadUptimeMs(long long& uptimeMs) {
    const std::string path = ProcessUtils::GetProcRoot() + "/uptime";
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char buffer[256];
    ssize_t got = 0;
    do {
        got = read(fd, buffer, sizeof buffer);
    } while (got < 0 && errno == EINTR);
    close(fd);
    return got > 0 && ParseUptime(std::string_view(buffer, static_cast<size_t>(got)), uptimeMs);
}

// 10000 per CPU fully used: cpuMs of CPU time over wallMs of wall time.
int UsageOf(long long cpuMs, long long wallMs) {
    if (wallMs <= 0 || cpuMs <= 0) {
        return 0;
    }
    const long long usage = cpuMs * 10000LL / wallMs;
    return usage > 0x7FFFFFFFLL ? 0x7FFFFFFF : static_cast<int>(usage);
}

}  // namespace

CpuCalcUtils::CpuCalcUtils() = default;
CpuCalcUtils::~CpuCalcUtils() = default;

bool CpuCalcUtils::Init(int pid) {
    ProcStat stat;
    if (!ReadProcStat(pid, stat)) {
        pid_ = -1;
        return false;
    }
    pid_ = pid;
    startTicks_ = stat.startTime;
    lastCpuTicks_ = 0;
    lastWallMs_ = -1;
    return true;
}

bool CpuCalcUtils::GetCpuUsage(int& usage) {
    ProcStat stat;
    // A different start time means the pid now belongs to another process.
    if (pid_ <= 0 || !ReadProcStat(pid_, stat) || stat.startTime != startTicks_) {
        return false;
    }
    const long long hz = TicksPerSecond();
    const unsigned long long cpuTicks = stat.utime + stat.stime;
    const long long nowMs = MonotonicMs();
    if (lastWallMs_ >= 0 && nowMs - lastWallMs_ >= kMinIntervalMs) {
        const unsigned long long deltaTicks = cpuTicks >= lastCpuTicks_ ? cpuTicks - lastCpuTicks_ : 0;
        usage = UsageOf(static_cast<long long>(deltaTicks) * 1000LL / hz, nowMs - lastWallMs_);
        lastCpuTicks_ = cpuTicks;
        lastWallMs_ = nowMs;
        return true;
    }
    // First sample, or one too close to the last to measure: the average over the
    // process's life. A too-close sample keeps the earlier baseline.
    long long uptimeMs = 0;
    if (!ReadUptimeMs(uptimeMs)) {
        return false;
    }
    usage = UsageOf(static_cast<long long>(cpuTicks) * 1000LL / hz, uptimeMs - startTicks_ * 1000LL / hz);
    if (lastWallMs_ < 0) {
        lastCpuTicks_ = cpuTicks;
        lastWallMs_ = nowMs;
    }
    return true;
}

}  // namespace SDK
