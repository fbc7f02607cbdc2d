#include "sdk/ExecuteCmdUtils.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "sdk/HostLog.h"

extern char** environ;

namespace SDK {

namespace {

long long MonotonicMs() {
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000LL + ts.tv_nsec / 1000000LL;
}

// Starts /bin/sh -c `command` in a process group of its own, its standard output
// on `outFd`, standard input and error on /dev/null. -1 on failure.
pid_t SpawnShell(const std::string& command, int outFd) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    if (posix_spawn_file_actions_init(&actions) != 0) {
        return -1;
    }
    if (posix_spawnattr_init(&attr) != 0) {
        posix_spawn_file_actions_destroy(&actions);
        return -1;
    }
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    pid_t pid = -1;
    // Own process group, so that a time-out kills whatever the shell started too;
    // default signal handling, since the agent ignores SIGPIPE and masks signals.
    const bool ready =
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0 &&
        posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO) == 0 &&
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0) == 0 &&
        posix_spawnattr_setflags(
            &attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF) == 0 &&
        posix_spawnattr_setpgroup(&attr, 0) == 0 && posix_spawnattr_setsigmask(&attr, &none) == 0 &&
        posix_spawnattr_setsigdefault(&attr, &all) == 0;
    if (ready) {
        char shell[] = "/bin/sh";
        char flag[] = "-c";
        char* argv[] = {shell, flag, const_cast<char*>(command.c_str()), nullptr};
        if (posix_spawn(&pid, shell, &actions, &attr, argv, environ) != 0) {
            pid = -1;
        }
    }
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Reads the child's output until end of file or the deadline, keeping at most
// `maxOutput` bytes and draining the rest so the child never blocks on a full pipe.
// False on time-out.
bool CollectOutput(int fd, std::string& output, unsigned long maxOutput, long long deadlineMs) {
    char buffer[4096];
    for (;;) {
        const long long left = deadlineMs - MonotonicMs();
        if (left <= 0) {
            return false;
        }
        struct pollfd pfd = {fd, POLLIN, 0};
        const int ready = poll(&pfd, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return ready == 0 ? false : true;
        }
        const ssize_t got = read(fd, buffer, sizeof(buffer));
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (got <= 0) {
            return true;
        }
        if (output.size() < maxOutput) {
            output.append(buffer, std::min<size_t>(static_cast<size_t>(got), maxOutput - output.size()));
        }
    }
}

// Waits for the child until the deadline. True, with its wait status, when it ended.
bool WaitUntil(pid_t pid, long long deadlineMs, int& status) {
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            return true;
        }
        if (done < 0 && errno != EINTR) {
            status = -1;
            return true;  // not our child any more: nothing left to reap
        }
        if (MonotonicMs() >= deadlineMs) {
            return false;
        }
        struct timespec pause = {0, 10 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
}

}  // namespace

int ExecuteCmdUtils::ExecuteCmd(const std::string& command, std::string& output, unsigned long maxOutput,
                                int timeoutSeconds) {
    output.clear();
    int fds[2];
    if (command.empty() || pipe2(fds, O_CLOEXEC) != 0) {
        return -1;
    }
    const pid_t pid = SpawnShell(command, fds[1]);
    close(fds[1]);
    if (pid < 0) {
        close(fds[0]);
        HOST_LOG_WARNING("cannot run \"" + command + "\" through /bin/sh");
        return -1;
    }
    const int seconds = timeoutSeconds > 0 ? timeoutSeconds : 1;
    const long long deadlineMs = MonotonicMs() + static_cast<long long>(seconds) * 1000;
    const bool finishedOutput = CollectOutput(fds[0], output, maxOutput, deadlineMs);
    close(fds[0]);
    int status = 0;
    if (!finishedOutput || !WaitUntil(pid, deadlineMs, status)) {
        HOST_LOG_WARNING("\"" + command + "\" still running after " + std::to_string(seconds) + " s, killed");
        kill(-pid, SIGKILL);
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return -1;
    }
    return status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace SDK
