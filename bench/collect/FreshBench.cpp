// What the live table's re-reads of changes without kernel events cost at one
// refresh: the executable check of every process (one stat per distinct path,
// a readlink only for suspects) and the status and command line of compared
// processes (files kept open), against the bare reads they replace or add.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "BenchUtil.h"
#include "ExecutableWatch.h"
#include "LiveProcsFullTask.h"
#include "ProcessCollectModule.h"
#include "ProcsRealTask.h"
#include "collect/ProcsFullTask.h"
#include "framework/Engine.h"

namespace {

double ThreadCpuUs() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

template <class F>
double CpuUs(F&& work) {
    const double start = ThreadCpuUs();
    work();
    return ThreadCpuUs() - start;
}

void ReadFile(const std::string& path) {
    char buffer[8192];
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        (void)!::read(fd, buffer, sizeof buffer);
        ::close(fd);
    }
}

}  // namespace

void RunFreshBench(int children, int rounds, int compared) {
    std::vector<pid_t> idle;
    for (int i = 0; i < children; ++i) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::pause();
            ::_exit(0);
        }
        idle.push_back(pid);
    }
    const std::vector<int> named(idle.begin(), idle.begin() + std::min<size_t>(idle.size(), compared));
    {
        Framework::Engine engine;
        Engine::ProcessCollectModule module;
        module.Init();
        auto* full =
            dynamic_cast<Engine::LiveProcsFullTask*>(engine.FindTask(Engine::ProcsFullTask::kTaskName));
        auto* real = dynamic_cast<Engine::ProcsRealTask*>(engine.FindTask(Engine::ProcsRealTask::kTaskName));
        while (!real->IsReady()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        full->SetRefreshSeconds(1);
        Engine::ProcsFullTask::ProcsMap table;
        auto nextRefresh = [] { std::this_thread::sleep_for(std::chrono::milliseconds(1050)); };
        // The first rescan, then the pass that takes every process's file once.
        full->GetProcsMap(table);
        nextRefresh();
        const double firstPass = CpuUs([&] { full->GetProcsMap(table); });
        std::set<std::string> paths;
        for (const auto& entry : table) {
            paths.insert(entry.second->exePath);
        }

        // The check alone, on the same table (the refreshes above also take the host's events).
        Engine::ExecutableWatch watch("/proc");
        std::vector<int> suspects;
        watch.FindSuspects(table, {}, suspects);

        std::vector<double> refresh, copy, check, fresh, readlinks, bareCompared;
        for (int round = 0; round < rounds; ++round) {
            nextRefresh();
            refresh.push_back(CpuUs([&] { full->GetProcsMap(table); }));
            copy.push_back(CpuUs([&] { full->GetProcsMap(table); }));  // same refresh: the copy alone
            check.push_back(CpuUs([&] { watch.FindSuspects(table, {}, suspects); }));
            nextRefresh();
            full->GetProcsMap(table);
            fresh.push_back(CpuUs([&] { full->GetProcsMapFresh(table, named); }) - copy.back());
            readlinks.push_back(CpuUs([&] {
                char target[4096];
                for (const auto& entry : table) {
                    const std::string link = "/proc/" + std::to_string(entry.first) + "/exe";
                    (void)!::readlink(link.c_str(), target, sizeof target);
                }
            }));
            bareCompared.push_back(CpuUs([&] {
                for (const int pid : named) {
                    ReadFile("/proc/" + std::to_string(pid) + "/status");
                    ReadFile("/proc/" + std::to_string(pid) + "/cmdline");
                    ReadFile("/proc/" + std::to_string(pid) + "/stat");
                }
            }));
        }
        const double processes = static_cast<double>(table.size());
        std::printf("fresh: %zu processes, %zu distinct executable paths, median of %d rounds (thread CPU)\n",
                    table.size(), paths.size(), rounds);
        std::printf("  refresh, no events      %8.0f us  (of which the copy a reader gets %.0f us)\n",
                    Median(refresh), Median(copy));
        std::printf(
            "  executable check        %8.0f us  %.3f us per process, %zu suspects (first pass %.0f us)\n",
            Median(check), Median(check) / processes, suspects.size(), firstPass - Median(copy));
        std::printf("  bare readlink of all    %8.0f us  %.3f us per process\n", Median(readlinks),
                    Median(readlinks) / processes);
        std::printf("  %zu compared (+parent)  %8.0f us  %.2f us per process\n", named.size(), Median(fresh),
                    Median(fresh) / static_cast<double>(named.size()));
        std::printf("  bare open/read/close    %8.0f us  %.2f us per process (status, cmdline, stat)\n",
                    Median(bareCompared), Median(bareCompared) / static_cast<double>(named.size()));
        engine.StopAll();
        module.UnInit();
    }
    for (const pid_t pid : idle) {
        ::kill(pid, SIGKILL);
    }
    for (const pid_t pid : idle) {
        ::waitpid(pid, nullptr, 0);
    }
}
