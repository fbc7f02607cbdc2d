#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

// A child process for tests, killed and reaped when the object goes. The
// constructors return once the child is ready: exec'd, or its body has called
// the notify function it was given.
class ChildProcess {
public:
    explicit ChildProcess(const std::vector<std::string>& argv) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            std::vector<char*> args;
            for (const std::string& arg : argv) {
                args.push_back(const_cast<char*>(arg.c_str()));
            }
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
        close(fds[1]);
        char byte;
        // The close-on-exec write end reaches end of file at the exec.
        while (read(fds[0], &byte, 1) > 0) {
        }
        close(fds[0]);
    }

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
        (void)!read(fds[0], &byte, 1);
        close(fds[0]);
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess() { KillAndReap(); }

    pid_t pid() const { return pid_; }

    void KillAndReap() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

private:
    pid_t pid_ = -1;
};
