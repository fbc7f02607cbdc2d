// A process-tree builder for the privilege-escalation end-to-end tests.
//
//   detroot_helper DIR STEP...
//
// runs its steps in order; DIR is where pid files, trigger files and errors go.
//   pid:NAME        write this process's pid to DIR/NAME
//   resuid:R,E,S    setresuid
//   seteuid:U       seteuid
//   fork            the child goes on with the remaining steps; the parent waits
//   waitfile:NAME   wait until DIR/NAME exists
//   capset:N        raise capability N from the permitted into the effective set
//   unlinkexe       delete the program file this process runs (run by its path)
//   wait            wait until killed (also what happens after the last step)
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

std::string g_dir;

[[noreturn]] void Fail(const std::string& step, const std::string& why) {
    std::ofstream(g_dir + "/errors", std::ios::app) << getpid() << " " << step << ": " << why << "\n";
    _exit(2);
}

[[noreturn]] void WaitForever() {
    for (;;) {
        pause();
    }
}

void WriteFile(const std::string& name, const std::string& text) {
    const std::string path = g_dir + "/" + name;
    const std::string temp = path + ".tmp" + std::to_string(getpid());
    std::ofstream(temp) << text;
    std::rename(temp.c_str(), path.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s DIR STEP...\n", argv[0]);
        return 1;
    }
    g_dir = argv[1];
    for (int i = 2; i < argc; ++i) {
        const std::string step = argv[i];
        const size_t colon = step.find(':');
        const std::string verb = step.substr(0, colon);
        const std::string arg = colon == std::string::npos ? "" : step.substr(colon + 1);
        unsigned int n[3] = {0, 0, 0};
        const int numbers = std::sscanf(arg.c_str(), "%u,%u,%u", &n[0], &n[1], &n[2]);
        errno = EINVAL;  // what a bad step reports
        bool ok = true;
        if (verb == "pid") {
            WriteFile(arg, std::to_string(getpid()) + "\n");
        } else if (verb == "resuid") {
            ok = numbers == 3 && setresuid(n[0], n[1], n[2]) == 0;
        } else if (verb == "seteuid") {
            ok = numbers == 1 && seteuid(n[0]) == 0;
        } else if (verb == "fork") {
            const pid_t child = fork();
            ok = child >= 0;
            if (child > 0) {
                WaitForever();
            }
        } else if (verb == "waitfile") {
            struct stat info {};
            while (stat((g_dir + "/" + arg).c_str(), &info) != 0) {
                usleep(50 * 1000);
            }
        } else if (verb == "capset") {
            __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
            __user_cap_data_struct data[2];
            ok = numbers == 1 && n[0] < 64 && syscall(SYS_capget, &header, data) == 0;
            if (ok) {
                data[n[0] / 32].effective |= 1u << (n[0] % 32);
                ok = syscall(SYS_capset, &header, data) == 0;
            }
        } else if (verb == "unlinkexe") {
            ok = unlink(argv[0]) == 0;  // run by its absolute path
        } else if (verb == "wait") {
            WaitForever();
        } else {
            ok = false;
        }
        if (!ok) {
            Fail(step, std::strerror(errno));
        }
    }
    WaitForever();
}
