#pragma once

#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace DetactionTest {

inline bool WaitFor(const std::function<bool()>& done, long timeoutMs = 60000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// A child process the test starts; killed and reaped when the object goes.
class Child {
public:
    explicit Child(const std::vector<std::string>& argv) {
        std::vector<char*> args;
        for (const std::string& arg : argv) {
            args.push_back(const_cast<char*>(arg.c_str()));
        }
        args.push_back(nullptr);
        if (posix_spawn(&pid_, args[0], nullptr, nullptr, args.data(), environ) != 0) {
            pid_ = -1;
            return;
        }
        // posix_spawn returns while exec may still be setting up the new program,
        // when /proc shows no command line yet.
        const std::string cmdline = "/proc/" + std::to_string(pid_) + "/cmdline";
        WaitFor(
            [&] {
                std::ifstream in(cmdline);
                return in.get() != std::char_traits<char>::eof();
            },
            10000);
    }
    ~Child() { Kill(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    int pid() const { return pid_; }
    void Kill() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

private:
    pid_t pid_ = -1;
};

// The pid of a process that has exited and been reaped.
inline int DeadPid() {
    char path[] = "/bin/true";
    char* args[] = {path, nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, path, nullptr, nullptr, args, environ) == 0) {
        waitpid(pid, nullptr, 0);
    }
    return pid;
}

// The resolved path ("" when it cannot be resolved).
inline std::string RealPath(const std::string& path) {
    char buffer[PATH_MAX] = {0};
    return realpath(path.c_str(), buffer) != nullptr ? buffer : "";
}

// The digest as sha256sum prints it, computed apart from the agent's own code.
inline std::string Sha256Sum(const std::string& path) {
    std::string out;
    if (FILE* pipe = popen(("sha256sum '" + path + "'").c_str(), "r")) {
        char buffer[128] = {0};
        if (fgets(buffer, sizeof(buffer), pipe) != nullptr) {
            out.assign(buffer, strnlen(buffer, 64));
        }
        pclose(pipe);
    }
    return out;
}

// Results are stamped per second; waits until the next second begins so two
// cycles get different stamps.
inline void WaitNextSecond() {
    const time_t start = time(nullptr);
    while (time(nullptr) == start) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace DetactionTest
