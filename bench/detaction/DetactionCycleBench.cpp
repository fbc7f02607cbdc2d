// Cost of one behaviour-detection cycle (the location and CPU detectors over the
// real process snapshot) per process, beside the bare cost of reading what the
// detectors read: /proc/PID/stat opened, read and closed for every process, and
// read again through descriptors kept open. Also checks that cycles over an
// unchanged host send no alert and keep the live heap flat.
//
//   detaction_bench [children (2000)] [cycles (12)] [cpu share (10; 0: governor off)]
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "../IdleProcesses.h"
#include "LiveProcsFullTask.h"
#include "collect/ProcsFullTask.h"
#include "feature_detaction/ProcDetActionFullTask.h"
#include "feature_detaction/ProcDetActionFullTaskPolicy.h"
#include "framework/Engine.h"
#include "framework/Module.h"
#include "sdk/CpuCalcUtils.h"
#include "sdk/InnerCpuCtrlUtils.h"

// Live heap bytes of the whole process, for the growth check.
namespace {
std::atomic<long> g_liveBytes{0};
std::atomic<long> g_allocations{0};
}  // namespace

void* operator new(size_t size) {
    void* p = std::malloc(size == 0 ? 1 : size);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    g_liveBytes += static_cast<long>(malloc_usable_size(p));
    ++g_allocations;
    return p;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    void* p = std::malloc(size == 0 ? 1 : size);
    if (p != nullptr) {
        g_liveBytes += static_cast<long>(malloc_usable_size(p));
        ++g_allocations;
    }
    return p;
}
void operator delete(void* p) noexcept {
    if (p != nullptr) {
        g_liveBytes -= static_cast<long>(malloc_usable_size(p));
        std::free(p);
    }
}
void operator delete(void* p, size_t) noexcept {
    operator delete(p);
}

namespace {

class BenchHostModule : public Framework::Module {
public:
    BenchHostModule() : Framework::Module("bench_host_module") {}
};

// "data_comm_report_task" that only counts what it is sent.
class CountingReportTask : public Framework::Task {
public:
    CountingReportTask()
        : Framework::Task("data_comm_report_task", "report_feature",
                          Framework::TaskCondition::TASK_TYPE_RESIDENT, 0) {}
    bool InterceptMsg(std::shared_ptr<Framework::Message>&) override {
        ++count;
        return true;
    }
    int Run() override {
        while (!sleep(1000)) {
        }
        return 0;
    }
    std::atomic<int> count{0};
};

struct Times {
    double wallUs = 0;
    double cpuUs = 0;
};

double NowUs(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

template <class Fn>
Times Measure(Fn fn) {
    const double wall = NowUs(CLOCK_MONOTONIC);
    const double cpu = NowUs(CLOCK_THREAD_CPUTIME_ID);
    fn();
    return {NowUs(CLOCK_MONOTONIC) - wall, NowUs(CLOCK_THREAD_CPUTIME_ID) - cpu};
}

Times Median(std::vector<Times> runs) {
    auto mid = [&](auto field) {
        std::vector<double> values;
        for (const Times& t : runs) {
            values.push_back(t.*field);
        }
        std::sort(values.begin(), values.end());
        return values[values.size() / 2];
    };
    return {mid(&Times::wallUs), mid(&Times::cpuUs)};
}

void ReadStatOpenClose(const std::vector<int>& pids) {
    char buffer[1024];
    for (int pid : pids) {
        const std::string path = "/proc/" + std::to_string(pid) + "/stat";
        const int fd = open(path.c_str(), O_RDONLY);
        if (fd >= 0) {
            [[maybe_unused]] ssize_t n = read(fd, buffer, sizeof(buffer));
            close(fd);
        }
    }
}

void ReadStatKeptOpen(const std::vector<int>& fds) {
    char buffer[1024];
    for (int fd : fds) {
        [[maybe_unused]] ssize_t n = pread(fd, buffer, sizeof(buffer), 0);
    }
}

// The CPU threshold is out of reach so that processes of a busy machine drifting
// across it do not change the flagged set between cycles; the detector's work is the same.
const char* kSection = R"({"task_condition": {"start_time": 0, "repeat_interval": 60}, "report_score": 3,
  "score": {"tmp": 1, "hidden": 1, "deleted": 1, "loginothers": 3, "bip": 3, "cpu": 1, "strings": 3, "packer": 0},
  "cpu_usage_warn": 2147483647})";

}  // namespace

int main(int argc, char** argv) {
    const int children = argc > 1 ? std::atoi(argv[1]) : 2000;
    const int cycles = std::max(3, argc > 2 ? std::atoi(argv[2]) : 12);
    // On as in the agent: its sleeps lengthen the wall time, the CPU columns are the cost.
    const int share = argc > 3 ? std::atoi(argv[3]) : 10;
    SDK::InnerCpuCtrlUtils::SetCpuShare(share);

    const std::vector<pid_t> spawned = BenchSupport::StartIdleProcesses(children);
    std::printf("idle children started: %zu, cpu share %d %%\n", spawned.size(), share);

    {
        Framework::Engine engine;
        BenchHostModule host;
        auto* procs = new Engine::LiveProcsFullTask(3600);  // one snapshot for the whole run
        auto* report = new CountingReportTask();
        for (Framework::Task* task : std::vector<Framework::Task*>{procs, report}) {
            task->SetTaskEnabled(true);
            host.RegisterTask(task, true);
        }

        Engine::ProcsFullTask::ProcsMap table;
        const Times snapshot = Measure([&] { procs->GetProcsMap(table); });
        std::vector<int> pids;
        for (const auto& entry : table) {
            pids.push_back(entry.first);
        }
        const double n = static_cast<double>(pids.size());
        std::printf(
            "processes in the snapshot: %zu (collector's scan: %.1f ms wall, not part of the cycle)\n",
            pids.size(), snapshot.wallUs / 1e3);

        auto* task = new Engine::ProcDetActionFullTask();
        Engine::ProcDetActionFullTaskPolicy policy(Engine::kDetActionTaskName);
        policy.Parse(kSection);
        task->AttachTaskPolicy(&policy);
        task->Init();
        task->AttachTaskPolicy(nullptr);
        task->PreCheckDetectors(1);

        // What the cycle is compared with: the same pids' stat files read bare, and the
        // host's usage sampler (called by the CPU detector once per process) alone.
        std::vector<int> fds;
        for (int pid : pids) {
            fds.push_back(open(("/proc/" + std::to_string(pid) + "/stat").c_str(), O_RDONLY));
        }
        fds.erase(std::remove(fds.begin(), fds.end(), -1), fds.end());
        std::vector<std::unique_ptr<SDK::CpuCalcUtils>> calcs;
        for (int pid : pids) {
            calcs.push_back(std::make_unique<SDK::CpuCalcUtils>());
            calcs.back()->Init(pid);
        }

        std::vector<Times> cycleTimes;
        std::vector<Times> openClose;
        std::vector<Times> keptOpen;
        std::vector<Times> sampler;
        std::vector<long> liveAfter;
        std::vector<long> allocsPerCycle;
        // Reserved so that the bookkeeping itself does not show up as heap growth.
        for (auto* times : {&cycleTimes, &openClose, &keptOpen, &sampler}) {
            times->reserve(cycles);
        }
        liveAfter.reserve(cycles);
        allocsPerCycle.reserve(cycles);
        int alertsAfterFirst = 0;
        // Interleaved rounds, so that a machine whose load changes during the run
        // weighs on every figure alike.
        for (int i = 0; i < cycles; ++i) {
            const long allocsBefore = g_allocations.load();
            const int alertsBefore = report->count.load();
            cycleTimes.push_back(Measure([&] { task->GetManager().Check(1, task); }));
            allocsPerCycle.push_back(g_allocations.load() - allocsBefore);
            liveAfter.push_back(g_liveBytes.load());
            if (i == 0) {
                continue;
            }
            alertsAfterFirst += report->count.load() - alertsBefore;
            openClose.push_back(Measure([&] { ReadStatOpenClose(pids); }));
            keptOpen.push_back(Measure([&] { ReadStatKeptOpen(fds); }));
            sampler.push_back(Measure([&] {
                for (auto& calc : calcs) {
                    int usage = 0;
                    calc->GetCpuUsage(usage);
                }
            }));
        }
        for (int fd : fds) {
            close(fd);
        }
        const Times first = cycleTimes.front();
        const Times steady = Median(std::vector<Times>(cycleTimes.begin() + 1, cycleTimes.end()));
        const Times sdk = Median(sampler);
        const Times bare = Median(openClose);
        const Times kept = Median(keptOpen);

        std::printf("\nper process (us)                      wall     cpu\n");
        std::printf("cycle, first (calculators created)  %7.2f %7.2f\n", first.wallUs / n, first.cpuUs / n);
        std::printf("cycle, steady (median of %2d)        %7.2f %7.2f\n", cycles - 1, steady.wallUs / n,
                    steady.cpuUs / n);
        std::printf("host CpuCalcUtils::GetCpuUsage      %7.2f %7.2f\n", sdk.wallUs / n, sdk.cpuUs / n);
        std::printf("bare stat open/read/close           %7.2f %7.2f\n", bare.wallUs / n, bare.cpuUs / n);
        std::printf("bare stat read, kept open           %7.2f %7.2f\n", kept.wallUs / n, kept.cpuUs / n);
        std::printf("steady cycle / bare open-read-close %7.2fx %6.2fx\n", steady.wallUs / bare.wallUs,
                    steady.cpuUs / bare.cpuUs);
        Engine::ProcDetManager::ResultMap results;
        task->GetManager().GetProcInfoMap(results);
        std::printf("flagged processes (each costs a liveness read per cycle): %zu\n", results.size());
        std::printf("\nalerts sent after the first cycle: %d\n", alertsAfterFirst);
        std::printf("live heap after each cycle (bytes):");
        for (long bytes : liveAfter) {
            std::printf(" %ld", bytes);
        }
        std::printf("\nheap growth from cycle 2 to cycle %d: %ld bytes\n", cycles,
                    liveAfter.back() - liveAfter[1]);
        std::printf("allocations per cycle:");
        for (long count : allocsPerCycle) {
            std::printf(" %ld", count);
        }
        std::printf("\n");

        task->release();
        engine.StopAll();
        host.UnInit();
        report->release();
        procs->release();
    }

    BenchSupport::StopIdleProcesses(spawned);
    return 0;
}
