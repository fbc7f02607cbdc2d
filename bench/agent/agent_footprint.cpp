// Runs the agent for a while and samples what it costs: resident memory
// (VmRSS) and CPU time (utime + stime) of the agent process, optionally with
// extra idle processes on the host.
//
//   agent_footprint [--agent PATH] [--seconds N] [--extra-procs N] [--warmup N] [-- agent args...]
//
// Default agent: /usr/local/corvane/bin/corvane-agent, run with its own
// prefix, settings and policies.
#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Options {
    std::string agent = "/usr/local/corvane/bin/corvane-agent";
    int seconds = 60;
    int warmup = 10;
    int extraProcs = 0;
    std::vector<std::string> agentArgs;
};

bool ParseOptions(int argc, char** argv, Options& options) {
    for (int index = 1; index < argc; ++index) {
        const std::string arg = argv[index];
        const bool hasValue = index + 1 < argc;
        if (arg == "--") {
            options.agentArgs.assign(argv + index + 1, argv + argc);
            return true;
        } else if (arg == "--agent" && hasValue) {
            options.agent = argv[++index];
        } else if (arg == "--seconds" && hasValue) {
            options.seconds = std::atoi(argv[++index]);
        } else if (arg == "--warmup" && hasValue) {
            options.warmup = std::atoi(argv[++index]);
        } else if (arg == "--extra-procs" && hasValue) {
            options.extraProcs = std::atoi(argv[++index]);
        } else {
            return false;
        }
    }
    return options.seconds > options.warmup && options.warmup >= 0 && options.extraProcs >= 0;
}

std::vector<pid_t> StartIdleProcesses(int count) {
    std::vector<pid_t> children;
    for (int index = 0; index < count; ++index) {
        const pid_t child = fork();
        if (child == 0) {
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

pid_t StartAgent(const Options& options) {
    std::vector<std::string> args = {options.agent};
    args.insert(args.end(), options.agentArgs.begin(), options.agentArgs.end());
    const pid_t child = fork();
    if (child == 0) {
        std::vector<char*> argv;
        for (std::string& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        std::perror(argv[0]);
        _exit(127);
    }
    return child;
}

long ReadRssKiB(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return -1;
}

// utime + stime in clock ticks; -1 when the process is gone.
long ReadCpuTicks(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t close = text.rfind(')');
    if (close == std::string::npos) {
        return -1;
    }
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    long utime = 0;
    long stime = 0;
    // After the command: state is field 3; utime and stime are fields 14 and 15.
    for (int number = 3; number <= 15 && fields >> field; ++number) {
        if (number == 14) {
            utime = std::atol(field.c_str());
        } else if (number == 15) {
            stime = std::atol(field.c_str());
        }
    }
    return utime + stime;
}

int CountProcesses() {
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        return -1;
    }
    int count = 0;
    while (const dirent* entry = readdir(proc)) {
        count += std::isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0 ? 1 : 0;
    }
    closedir(proc);
    return count;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        std::fprintf(
            stderr, "usage: %s [--agent PATH] [--seconds N] [--warmup N] [--extra-procs N] [-- agent args]\n",
            argv[0]);
        return 2;
    }
    const std::vector<pid_t> idle = StartIdleProcesses(options.extraProcs);
    const pid_t agent = StartAgent(options);
    const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));

    int fewestProcesses = CountProcesses();
    int mostProcesses = fewestProcesses;
    long peakRss = 0;
    long warmRss = 0;
    long warmTicks = -1;
    long lastTicks = 0;
    const auto start = std::chrono::steady_clock::now();
    for (int second = 1; second <= options.seconds; ++second) {
        std::this_thread::sleep_until(start + std::chrono::seconds(second));
        const long rss = ReadRssKiB(agent);
        const long cpu = ReadCpuTicks(agent);
        if (rss < 0 || cpu < 0) {
            std::fprintf(stderr, "the agent exited after %d s\n", second);
            break;
        }
        peakRss = std::max(peakRss, rss);
        const int processes = CountProcesses();
        fewestProcesses = std::min(fewestProcesses, processes);
        mostProcesses = std::max(mostProcesses, processes);
        lastTicks = cpu;
        if (second == options.warmup) {
            warmTicks = cpu;
            warmRss = rss;
        }
    }
    const long finalRss = ReadRssKiB(agent);
    kill(agent, SIGTERM);
    int status = 0;
    waitpid(agent, &status, 0);
    for (const pid_t child : idle) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }

    const double measured = options.seconds - options.warmup;
    const double cpuPercent = warmTicks < 0 ? -1 : 100.0 * (lastTicks - warmTicks) / ticks / measured;
    std::printf(
        "processes %d..%d | RSS after warm-up %ld KiB, at end %ld KiB, peak %ld KiB | CPU %.2f %% of one "
        "CPU over %.0f s after %d s warm-up | total CPU %.2f s | exit status %d\n",
        fewestProcesses, mostProcesses, warmRss, finalRss, peakRss, cpuPercent, measured, options.warmup,
        lastTicks / ticks, WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    return 0;
}
