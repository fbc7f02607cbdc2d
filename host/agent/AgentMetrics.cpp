#include "AgentMetrics.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "BuildInfo.h"
#include "sdk/FileUtils.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/ProcParsers.h"

namespace Agent {

namespace AgentMetrics {

namespace {

// /proc/stat has a line of interrupt counts that grows with the machine.
constexpr long kProcTextLimit = 1024 * 1024;

std::string ReadProc(const std::string& path) {
    std::string text;
    SDK::FileUtils::ReadFile(path, text, kProcTextLimit);
    return text;
}

double TicksPerSecond() {
    const long ticks = ::sysconf(_SC_CLK_TCK);
    return static_cast<double>(ticks > 0 ? ticks : 100);
}

size_t CountOpenFiles() {
    DIR* dir = ::opendir("/proc/self/fd");
    if (dir == nullptr) {
        return 0;
    }
    size_t count = 0;
    while (const dirent* entry = ::readdir(dir)) {
        count += entry->d_name[0] != '.';
    }
    ::closedir(dir);
    return count > 0 ? count - 1 : 0;  // less the one listing them
}

void RefreshProcess() {
    Framework::Metrics& metrics = Framework::Metrics::Instance();
    SDK::ProcStatFields stat;
    const std::string statText = ReadProc("/proc/self/stat");
    if (SDK::ParseStat(statText, stat)) {
        metrics.Counter("process_cpu_seconds_total", "Total user and system CPU time spent in seconds")
            .SetTotal(static_cast<double>(stat.utime + stat.stime) / TicksPerSecond());
    }
    // statm: size, resident, ... in pages.
    std::istringstream statm(ReadProc("/proc/self/statm"));
    unsigned long long size = 0;
    unsigned long long resident = 0;
    if (statm >> size >> resident) {
        metrics.Gauge("process_resident_memory_bytes", "Resident memory size in bytes")
            .Set(static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)));
        metrics.Gauge("process_virtual_memory_bytes", "Virtual memory size in bytes")
            .Set(static_cast<double>(size) * static_cast<double>(::sysconf(_SC_PAGESIZE)));
    }
    metrics.Gauge("process_open_fds", "Number of open file descriptors")
        .Set(static_cast<double>(CountOpenFiles()));
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        metrics.Gauge("process_max_fds", "Maximum number of open file descriptors")
            .Set(static_cast<double>(limit.rlim_cur));
    }
    metrics.Counter("corvane_cpu_governor_sleeps_total", "Times the CPU governor made a task thread sleep")
        .SetTotal(static_cast<double>(SDK::InnerCpuCtrlUtils::GetSleepCount()));
    metrics
        .Counter("corvane_cpu_governor_sleep_seconds_total", "Time task threads slept for the CPU governor")
        .SetTotal(SDK::InnerCpuCtrlUtils::GetSleptSeconds());
}

}  // namespace

Framework::MetricCounter& ModuleLoadErrors() {
    return Framework::Metrics::Instance().Counter("corvane_module_load_errors_total",
                                                  "Module libraries that could not be loaded");
}

Framework::MetricCounter& PolicyRefreshes() {
    return Framework::Metrics::Instance().Counter("corvane_policy_refreshes_total",
                                                  "Policies delivered to the modules");
}

Framework::MetricCounter& PolicyRefusals() {
    return Framework::Metrics::Instance().Counter(
        "corvane_policy_refusals_total",
        "Policy files not delivered (unreadable, not JSON, not an object, no module)");
}

void Publish(const void* owner) {
    ModuleLoadErrors();
    PolicyRefreshes();
    PolicyRefusals();
    Framework::Metrics::Instance()
        .Gauge("corvane_build_info", "The agent's version and the git revision it was built from; always 1",
               {{"version", CORVANE_VERSION}, {"revision", CORVANE_REVISION}})
        .Set(1);
    SDK::ProcStatFields stat;
    const std::string statText = ReadProc("/proc/self/stat");
    int64_t bootTime = 0;
    if (SDK::ParseStat(statText, stat) && SDK::ParseBootTime(ReadProc("/proc/stat"), bootTime)) {
        Framework::Metrics::Instance()
            .Gauge("process_start_time_seconds", "Start time of the process since unix epoch in seconds")
            .Set(static_cast<double>(bootTime) + static_cast<double>(stat.startTime) / TicksPerSecond());
    }
    RefreshProcess();
    Framework::Metrics::Instance().AddRefresher(owner, RefreshProcess);
}

}  // namespace AgentMetrics

}  // namespace Agent
