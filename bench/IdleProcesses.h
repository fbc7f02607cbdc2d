#pragma once

// Idle processes for benchmarks that need a populated host: bounded, and gone
// with the benchmark however it ends (PR_SET_PDEATHSIG), so an interrupted run
// leaves nothing behind.

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

namespace BenchSupport {

// Far below pid_max and threads-max of any usual host.
constexpr int kMaxIdleProcesses = 40000;

inline std::vector<pid_t> StartIdleProcesses(int count) {
    std::vector<pid_t> children;
    const pid_t parent = getpid();
    for (int index = 0; index < count && index < kMaxIdleProcesses; ++index) {
        const pid_t child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) {
                _exit(0);  // the benchmark ended before the request took effect
            }
            for (;;) {
                pause();
            }
        }
        if (child < 0) {
            std::perror("fork");
            break;
        }
        children.push_back(child);
    }
    return children;
}

inline void StopIdleProcesses(const std::vector<pid_t>& children) {
    for (const pid_t child : children) {
        kill(child, SIGKILL);
    }
    for (const pid_t child : children) {
        waitpid(child, nullptr, 0);
    }
}

}  // namespace BenchSupport
