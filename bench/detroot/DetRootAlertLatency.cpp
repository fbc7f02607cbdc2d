// Delay from a privilege escalation to its "procdet_0002" alert with the real agent
// and the shipped repeat interval of 10 seconds, timed until the alert for the
// escalating pid is in the alerts file. Two kinds of escalation:
//   regain  a process of user 1000 that keeps root as its saved user takes root
//           back, two seconds after its fork event;
//   setuid  a process of user 65534 forks a child that at once executes a set-uid-root
//           copy of bash placed in a directory outside the white list (timed from the fork).
//
//   detroot_alert_latency [rounds (6)] [repeat interval seconds (10)] [regain|setuid]
#include <grp.h>
#include <json/json.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
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

// Forks a process of user 65534, the leader of `group`, that like a shell forks a
// child which executes `program` at once. Returns the child's pid.
pid_t StartSetuidProgram(const std::string& program, pid_t& group) {
    int pidPipe[2];
    if (pipe(pidPipe) != 0) {
        return -1;
    }
    group = fork();
    if (group == 0) {
        setpgid(0, 0);
        if (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
            setresuid(65534, 65534, 65534) != 0) {
            _exit(1);
        }
        const pid_t child = fork();
        if (child == 0) {
            execl(program.c_str(), "rb", "-p", "-c", "sleep 600; true", static_cast<char*>(nullptr));
            _exit(127);
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
    close(pidPipe[1]);
    int pid = -1;
    if (read(pidPipe[0], &pid, sizeof(pid)) != sizeof(pid)) {
        pid = -1;
    }
    close(pidPipe[0]);
    return pid;
}

// A set-uid-root copy of bash in a fresh directory under /tmp; empty on failure.
std::string MakeSetuidShell() {
    char dir[] = "/tmp/corvane_latency_XXXXXX";
    if (mkdtemp(dir) == nullptr || chmod(dir, 0755) != 0) {
        return "";
    }
    const std::string path = std::string(dir) + "/rb";
    std::ifstream from("/bin/bash", std::ios::binary);
    std::ofstream(path, std::ios::binary) << from.rdbuf();
    if (chown(path.c_str(), 0, 0) != 0 || chmod(path.c_str(), 04755) != 0) {
        return "";
    }
    return path;
}

bool HasAlertFor(const TestSupport::AgentRunner& agent, int pid) {
    return !agent.Findings("procdet_0002", pid).empty();
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 6;
    const int interval = argc > 2 ? std::atoi(argv[2]) : 10;
    const bool setuid = argc > 3 && std::string(argv[3]) == "setuid";
    const std::string setuidShell = setuid ? MakeSetuidShell() : "";
    if (setuid && setuidShell.empty()) {
        std::fprintf(stderr, "could not make a set-uid copy of /bin/bash under /tmp\n");
        return 1;
    }
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
        Clock::time_point start = Clock::now();
        const pid_t pid = setuid ? StartSetuidProgram(setuidShell, group) : StartEscalator(group, trigger);
        if (pid <= 0) {
            std::fprintf(stderr, "round %d: could not start the process tree\n", round);
            return 1;
        }
        if (!setuid) {
            std::this_thread::sleep_for(std::chrono::seconds(2));
            start = Clock::now();
            if (write(trigger, "g", 1) != 1) {
                return 1;
            }
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
        if (trigger >= 0) {
            close(trigger);
        }
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
    if (setuid) {
        unlink(setuidShell.c_str());
        rmdir(setuidShell.substr(0, setuidShell.rfind('/')).c_str());
    }
    std::printf("%s, repeat interval %d s, %d rounds: min %.2f s, median %.2f s, mean %.2f s, max %.2f s\n",
                setuid ? "set-uid program by fork + exec" : "saved root regained", interval, rounds,
                delays.front(), delays[delays.size() / 2], sum / delays.size(), delays.back());
    agent.Stop();
    return 0;
}
