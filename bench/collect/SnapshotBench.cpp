// Snapshot cost at about 2,000 processes: our snapshot against the bare reads
// it needs and against ps.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "BenchUtil.h"
#include "ProcTableScanner.h"

namespace {

std::vector<int> ListPids() {
    std::vector<int> pids;
    DIR* dir = ::opendir("/proc");
    while (const dirent* entry = ::readdir(dir)) {
        const int pid = std::atoi(entry->d_name);
        if (pid > 0) {
            pids.push_back(pid);
        }
    }
    ::closedir(dir);
    return pids;
}

// The floor: open/read/close of stat, status, cmdline and readlink of exe per pid.
size_t BareReads(const std::vector<int>& pids) {
    char path[64];
    char buffer[8192];
    size_t bytes = 0;
    for (const int pid : pids) {
        for (const char* file : {"stat", "status", "cmdline"}) {
            std::snprintf(path, sizeof path, "/proc/%d/%s", pid, file);
            const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
            if (fd >= 0) {
                const ssize_t got = ::read(fd, buffer, sizeof buffer);
                bytes += got > 0 ? static_cast<size_t>(got) : 0;
                ::close(fd);
            }
        }
        std::snprintf(path, sizeof path, "/proc/%d/exe", pid);
        const ssize_t got = ::readlink(path, buffer, sizeof buffer);
        bytes += got > 0 ? static_cast<size_t>(got) : 0;
    }
    return bytes;
}

size_t RunPs() {
    FILE* ps = ::popen("ps -eo pid,ppid,uid,euid,gid,egid,comm,lstart,args", "r");
    size_t bytes = 0;
    char chunk[65536];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, ps)) > 0) {
        bytes += got;
    }
    ::pclose(ps);
    return bytes;
}

}  // namespace

void RunSnapshotBench(int children, int rounds) {
    std::vector<pid_t> idle;
    for (int i = 0; i < children; ++i) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::pause();
            ::_exit(0);
        }
        idle.push_back(pid);
    }
    ::usleep(200000);
    const std::vector<int> pids = ListPids();

    std::vector<double> snapshot;
    std::vector<double> bare;
    std::vector<double> ps;
    size_t records = 0;
    Engine::ProcTableScanner scanner("/proc");
    for (int round = 0; round < rounds; ++round) {
        // Interleaved, so that drifts of the machine hit all three alike.
        bare.push_back(TimeMs([&] { BareReads(pids); }));
        snapshot.push_back(TimeMs([&] {
            Engine::ProcsFullTask::ProcsMap map;
            scanner.TakeSnapshot(map);
            records = map.size();
        }));
        ps.push_back(TimeMs([&] { RunPs(); }));
    }
    for (const pid_t pid : idle) {
        ::kill(pid, SIGKILL);
    }
    for (const pid_t pid : idle) {
        ::waitpid(pid, nullptr, 0);
    }

    const double snapshotMs = Median(snapshot);
    const double bareMs = Median(bare);
    const double psMs = Median(ps);
    std::printf("snapshot: %zu processes, median of %d rounds\n", records, rounds);
    std::printf("  bare reads      %8.2f ms\n", bareMs);
    std::printf("  our snapshot    %8.2f ms   snapshot / bare reads = %.2f (goal <= 1.20)\n", snapshotMs,
                snapshotMs / bareMs);
    std::printf("  ps -eo ...      %8.2f ms   ps / snapshot         = %.2f (goal >= 1.20)\n", psMs,
                psMs / snapshotMs);
}
