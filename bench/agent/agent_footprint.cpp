// Runs the agent for a while and samples what it costs: resident memory
// (VmRSS) and CPU time (utime + stime) of the agent process, optionally with
// extra idle processes on the host, and optionally a fork storm afterwards
// measured side by side with forkstat.
//
//   agent_footprint [--agent PATH] [--seconds N] [--extra-procs N] [--warmup N]
//                   [--storm FORKS] [-- agent args...]
//
// The idle processes and forkstat die with this program, however it ends.
//
// Default agent: /usr/local/corvane/bin/corvane-agent, run with its own
// prefix, settings and policies.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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

#include "../IdleProcesses.h"
#include "../ProcessSample.h"

namespace {

using BenchSupport::CountProcesses;
using BenchSupport::ReadRssKiB;

struct Options {
    std::string agent = "/usr/local/corvane/bin/corvane-agent";
    int seconds = 60;
    int warmup = 10;
    int extraProcs = 0;
    int stormForks = 0;
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
        } else if (arg == "--storm" && hasValue) {
            options.stormForks = std::atoi(argv[++index]);
        } else {
            return false;
        }
    }
    // Bounded: far below pid_max and threads-max of any usual host.
    return options.seconds > options.warmup && options.warmup >= 0 && options.extraProcs >= 0 &&
           options.extraProcs <= BenchSupport::kMaxIdleProcesses && options.stormForks >= 0 &&
           options.stormForks <= 1000000;
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

pid_t StartForkstat() {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        execlp("forkstat", "forkstat", static_cast<char*>(nullptr));
        _exit(127);
    }
    return child;
}

// `forks` children that exit at once, reaped 64 at a time (by pid: the idle
// processes and the agent are children too).
void ForkStorm(int forks) {
    std::vector<pid_t> batch;
    for (int index = 0; index < forks; ++index) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(0);
        }
        if (child > 0) {
            batch.push_back(child);
        }
        if (batch.size() >= 64 || index + 1 == forks) {
            for (const pid_t pid : batch) {
                waitpid(pid, nullptr, 0);
            }
            batch.clear();
        }
    }
}

// A storm measured side by side with forkstat (its default events, output to
// /dev/null); then the agent's RSS once a second for a minute.
void RunStorm(pid_t agent, int forks) {
    const pid_t forkstat = StartForkstat();
    std::this_thread::sleep_for(std::chrono::seconds(2));  // forkstat subscribed
    const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    const long agent0 = ReadCpuTicks(agent);
    const long forkstat0 = ReadCpuTicks(forkstat);
    const long rss0 = ReadRssKiB(agent);
    const auto start = std::chrono::steady_clock::now();
    ForkStorm(forks);
    const double stormSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // Both drain what the kernel queued for them.
    std::this_thread::sleep_for(std::chrono::seconds(5));
    const long agent1 = ReadCpuTicks(agent);
    const long forkstat1 = ReadCpuTicks(forkstat);
    kill(forkstat, SIGKILL);
    waitpid(forkstat, nullptr, 0);
    const double agentUs = (agent1 - agent0) / ticks * 1e6 / forks;
    const double forkstatUs = (forkstat1 - forkstat0) / ticks * 1e6 / forks;
    long peak = ReadRssKiB(agent);
    int underAt = -1;
    for (int second = 1; second <= 60; ++second) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const long rss = ReadRssKiB(agent);
        peak = std::max(peak, rss);
        if (underAt < 0 && rss >= 0 && rss < 12 * 1024) {
            underAt = second;
        }
    }
    std::printf(
        "storm: %d forks in %.1f s | agent CPU %.1f us per fork, forkstat %.1f us per fork, ratio %.2f | "
        "RSS before %ld KiB, peak %ld KiB, after 65 s %ld KiB, under 12 MiB %d s after the drain\n",
        forks, stormSeconds, agentUs, forkstatUs, forkstatUs > 0 ? agentUs / forkstatUs : -1.0, rss0, peak,
        ReadRssKiB(agent), underAt);
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
    const std::vector<pid_t> idle = BenchSupport::StartIdleProcesses(options.extraProcs);
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
    if (options.stormForks > 0) {
        RunStorm(agent, options.stormForks);
    }
    kill(agent, SIGTERM);
    int status = 0;
    waitpid(agent, &status, 0);
    BenchSupport::StopIdleProcesses(idle);

    const double measured = options.seconds - options.warmup;
    const double cpuPercent = warmTicks < 0 ? -1 : 100.0 * (lastTicks - warmTicks) / ticks / measured;
    std::printf(
        "processes %d..%d | RSS after warm-up %ld KiB, at end %ld KiB, peak %ld KiB | CPU %.2f %% of one "
        "CPU over %.0f s after %d s warm-up | total CPU %.2f s | exit status %d\n",
        fewestProcesses, mostProcesses, warmRss, finalRss, peakRss, cpuPercent, measured, options.warmup,
        lastTicks / ticks, WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    return 0;
}
