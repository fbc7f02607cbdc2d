#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "support/WaitFor.h"

namespace TestSupport {

// A child process for tests, killed and reaped when the object goes. The
// constructors return once the child is ready: exec'd with its command line
// visible in /proc, or its body has called the notify function it was given.
// pid() is -1 when the child could not be started or its exec failed.
class ChildProcess {
public:
    explicit ChildProcess(const std::vector<std::string>& argv)
        : ChildProcess([&argv](const std::function<void()>& notify) {
              std::vector<char*> args;
              for (const std::string& arg : argv) {
                  args.push_back(const_cast<char*>(arg.c_str()));
              }
              args.push_back(nullptr);
              execv(args[0], args.data());
              notify();  // only reached when exec failed
              _exit(127);
          }) {
        if (notified_) {
            Kill();
        } else if (pid_ > 0) {
            // The pipe closes at exec before the kernel has set the new
            // command line; readers of /proc want to see it.
            const std::string cmdline = "/proc/" + std::to_string(pid_) + "/cmdline";
            WaitFor([&] { return std::ifstream(cmdline).get() != std::char_traits<char>::eof(); }, 10000);
        }
    }

    // Runs `body` in the child; the child exits when body returns.
    explicit ChildProcess(const std::function<void(const std::function<void()>& notify)>& body) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            close(fds[0]);
            body([fd = fds[1]] {
                const char byte = 1;
                (void)!write(fd, &byte, 1);
            });
            _exit(0);
        }
        close(fds[1]);
        char byte;
        // A notify or the close-on-exec write end reaching end of file at exec
        // (or at exit) ends the wait.
        notified_ = read(fds[0], &byte, 1) == 1;
        close(fds[0]);
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess() { Kill(); }

    pid_t pid() const { return pid_; }

    void Kill() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

    // Waits for the child to exit by itself.
    void Wait() {
        if (pid_ > 0) {
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

private:
    pid_t pid_ = -1;
    bool notified_ = false;
};

// The pid of a process that has exited and been reaped.
inline pid_t DeadPid() {
    ChildProcess child([](const std::function<void()>&) {});
    const pid_t pid = child.pid();
    child.Wait();
    return pid;
}

}  // namespace TestSupport
