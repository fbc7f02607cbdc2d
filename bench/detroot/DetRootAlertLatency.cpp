// Delay from a privilege escalation to its "procdet_0002" alert with the real agent
// and the shipped repeat interval of 10 seconds. Each round forks a process as
// user 1000 that keeps root as its saved user, lets its fork event settle, then
// has it take root back and times until the alert for its pid is in the alerts file.
//
//   detroot_alert_latency [rounds (6)] [repeat interval seconds (10)]
#include <json/json.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/AgentRunner.h"

namespace {

using Clock = std::chrono::steady_clock;

// Returns the pid of the escalating process; `trigger` is the pipe end that starts it.
pid_t StartEscalator(pid_t& group, int& trigger) {
    int fds[2];
    if (pipe(fds) != 0) {
        return -1;
    }
    int pidPipe[2];
    if (pipe(pidPipe) != 0) {
        return -1;
    }
    group = fork();
    if (group == 0) {
        setpgid(0, 0);
        close(fds[1]);
        if (setresuid(1000, 1000, 0) != 0) {
            _exit(1);
        }
        const pid_t child = fork();
        if (child == 0) {
            char go = 0;
            if (read(fds[0], &go, 1) == 1 && seteuid(0) == 0) {
                for (;;) {
                    pause();
                }
            }
            _exit(2);
        }
        const int pid = static_cast<int>(child);
        if (write(pidPipe[1], &pid, sizeof(pid)) != sizeof(pid)) {
            _exit(3);
        }
        for (;;) {
            pause();
        }
    }
    setpgid(group, group);
    close(fds[0]);
    close(pidPipe[1]);
    trigger = fds[1];
    int pid = -1;
    if (read(pidPipe[0], &pid, sizeof(pid)) != sizeof(pid)) {
        pid = -1;
    }
    close(pidPipe[0]);
    return pid;
}

bool HasAlertFor(const TestSupport::AgentRunner& agent, int pid) {
    return !agent.Findings("procdet_0002", pid).empty();
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 6;
    const int interval = argc > 2 ? std::atoi(argv[2]) : 10;
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    TestSupport::AgentRunner agent("detroot-latency");
    agent.WritePolicy("10001", "proc_detroot_feature",
                      R"({"enabled": true, "content": {"ignore_process_d": [], "detroot_full_task": {
                          "task_condition": {"start_time": 0, "repeat_interval": )" +
                          std::to_string(interval) + R"(}, "report_nonsuid_parent": false}}})");
    if (!agent.Start() || !agent.WaitForLog("detroot1 inTime", 60000)) {
        std::fprintf(stderr, "agent did not start the detroot task\n");
        return 1;
    }

    std::vector<double> delays;
    for (int round = 0; round < rounds; ++round) {
        pid_t group = -1;
        int trigger = -1;
        const pid_t pid = StartEscalator(group, trigger);
        if (pid <= 0) {
            std::fprintf(stderr, "round %d: could not start the process tree\n", round);
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::seconds(2));
        const Clock::time_point start = Clock::now();
        if (write(trigger, "g", 1) != 1) {
            return 1;
        }
        bool seen = false;
        while (!(seen = HasAlertFor(agent, pid)) &&
               Clock::now() - start < std::chrono::seconds(interval * 3 + 30)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        kill(-group, SIGKILL);
        // Both processes of the round are ours to reap (we are their subreaper).
        while (waitpid(-group, nullptr, 0) > 0 || errno == EINTR) {
        }
        close(trigger);
        if (!seen) {
            std::fprintf(stderr, "round %d: no alert for pid %d\n", round, pid);
            return 1;
        }
        std::printf("round %d: pid %d alerted after %.2f s\n", round, pid, seconds);
        delays.push_back(seconds);
        // Start the next round at another phase of the check period.
        std::this_thread::sleep_for(std::chrono::milliseconds(1700 * (round + 1) % (interval * 1000)));
    }
    std::sort(delays.begin(), delays.end());
    double sum = 0;
    for (double d : delays) {
        sum += d;
    }
    std::printf("repeat interval %d s, %d rounds: min %.2f s, median %.2f s, mean %.2f s, max %.2f s\n",
                interval, rounds, delays.front(), delays[delays.size() / 2], sum / delays.size(),
                delays.back());
    agent.Stop();
    return 0;
}
