// Churn soak: the real agent, both detection features at short cycles, 2,000 idle processes and a
// steady stream of short-lived ones, for minutes. Reports whether the agent survived, its resident
// memory over time, alerts that name the soak's own (clean) processes, and fork events: made by
// the soak, seen by an independent process-connector listener, and lost by the agent's own account.
//
//   churn_soak [--minutes N] [--idle N] [--rate N per second] [--sample-seconds N]
#include <fcntl.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "../ProcessSample.h"

namespace {

using BenchSupport::CountProcesses;
using BenchSupport::ReadRssKiB;

using Clock = std::chrono::steady_clock;

struct Options {
    int minutes = 10;
    int idle = 2000;
    int rate = 500;
    int sampleSeconds = 30;
};

bool ParseOptions(int argc, char** argv, Options& options) {
    for (int index = 1; index + 1 < argc; index += 2) {
        const std::string arg = argv[index];
        const int value = std::atoi(argv[index + 1]);
        if (arg == "--minutes") {
            options.minutes = value;
        } else if (arg == "--idle") {
            options.idle = value;
        } else if (arg == "--rate") {
            options.rate = value;
        } else if (arg == "--sample-seconds") {
            options.sampleSeconds = value;
        } else {
            return false;
        }
    }
    return argc % 2 == 1 && options.minutes > 0 && options.rate > 0 && options.sampleSeconds > 0;
}

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void WriteText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string WithInterval(std::string policy, int seconds) {
    return std::regex_replace(policy, std::regex(R"("repeat_interval":\s*[0-9]+)"),
                              "\"repeat_interval\": " + std::to_string(seconds));
}

// Fork events whose parent is `parent`, as the kernel hands them to any listener.
class ForkWitness {
public:
    explicit ForkWitness(pid_t parent) : parent_(parent) {}
    ~ForkWitness() { Stop(); }

    bool Start() {
        fd_ = socket(PF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR);
        if (fd_ < 0) {
            return false;
        }
        int size = 8 << 20;
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = CN_IDX_PROC;
        if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            return false;
        }
        alignas(nlmsghdr) char request[NLMSG_SPACE(sizeof(cn_msg) + sizeof(proc_cn_mcast_op))] = {};
        auto* header = reinterpret_cast<nlmsghdr*>(request);
        header->nlmsg_len = NLMSG_LENGTH(sizeof(cn_msg) + sizeof(proc_cn_mcast_op));
        header->nlmsg_type = NLMSG_DONE;
        header->nlmsg_pid = static_cast<__u32>(getpid());
        auto* message = static_cast<cn_msg*>(NLMSG_DATA(header));
        message->id.idx = CN_IDX_PROC;
        message->id.val = CN_VAL_PROC;
        message->len = sizeof(proc_cn_mcast_op);
        const proc_cn_mcast_op op = PROC_CN_MCAST_LISTEN;
        std::memcpy(message->data, &op, sizeof op);
        if (send(fd_, request, header->nlmsg_len, 0) < 0) {
            return false;
        }
        thread_ = std::thread([this] { Run(); });
        return true;
    }

    void Stop() {
        stop_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
        if (fd_ >= 0) {
            close(fd_);
            fd_ = -1;
        }
    }

    long forks() const { return forks_; }
    long overruns() const { return overruns_; }

private:
    void Run() {
        alignas(nlmsghdr) char buffer[8192];
        while (!stop_) {
            pollfd ready{fd_, POLLIN, 0};
            if (poll(&ready, 1, 200) <= 0) {
                continue;
            }
            const ssize_t received = recv(fd_, buffer, sizeof buffer, 0);
            if (received < 0) {
                overruns_ += errno == ENOBUFS ? 1 : 0;
                continue;
            }
            int got = static_cast<int>(received);
            for (auto* header = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(header, got);
                 header = NLMSG_NEXT(header, got)) {
                const auto* message = static_cast<const cn_msg*>(NLMSG_DATA(header));
                const auto* event = reinterpret_cast<const proc_event*>(message->data);
                if (event->what == proc_event::PROC_EVENT_FORK &&
                    event->event_data.fork.parent_tgid == parent_ &&
                    event->event_data.fork.child_pid == event->event_data.fork.child_tgid) {
                    ++forks_;
                }
            }
        }
    }

    pid_t parent_;
    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<long> forks_{0};
    std::atomic<long> overruns_{0};
    std::thread thread_;
};

pid_t Spawn(const std::vector<std::string>& args, const std::string& output) {
    const pid_t child = fork();
    if (child == 0) {
        if (!output.empty()) {
            FILE* out = std::freopen(output.c_str(), "a", stdout);
            (void)out;
            dup2(STDOUT_FILENO, STDERR_FILENO);
        }
        std::vector<char*> argv;
        for (const std::string& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    return child;
}

// Occurrences of `needle` in `text`.
long Count(const std::string& text, const std::string& needle) {
    long count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++count;
    }
    return count;
}

// The sum of the numbers that follow `prefix` in `text`.
long SumAfter(const std::string& text, const std::string& prefix) {
    long sum = 0;
    for (size_t at = text.find(prefix); at != std::string::npos; at = text.find(prefix, at + 1)) {
        sum += std::atol(text.c_str() + at + prefix.size());
    }
    return sum;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        std::fprintf(stderr, "usage: %s [--minutes N] [--idle N] [--rate N] [--sample-seconds N]\n", argv[0]);
        return 2;
    }
    char pattern[] = "/tmp/corvane-soak-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::string prefix = pattern;
    chmod(prefix.c_str(), 0755);
    for (const char* dir : {"/conf", "/conf/policies", "/conf/policies/10001", "/log"}) {
        mkdir((prefix + dir).c_str(), 0755);
    }
    const std::string source = CORVANE_SOURCE_DIR;
    const std::string build = CORVANE_BUILD_DIR;
    WriteText(prefix + "/conf/policies/10001/proc_detaction_feature.json",
              WithInterval(ReadText(source + "/conf/policies/10001/proc_detaction_feature.json"), 2));
    WriteText(prefix + "/conf/policies/10001/proc_detroot_feature.json",
              WithInterval(ReadText(source + "/conf/policies/10001/proc_detroot_feature.json"), 3));

    // Idle processes: forks of this program waiting for a signal.
    std::vector<pid_t> idle;
    for (int index = 0; index < options.idle; ++index) {
        const pid_t child = fork();
        if (child == 0) {
            for (;;) {
                pause();
            }
        }
        if (child > 0) {
            idle.push_back(child);
        }
    }

    const std::string alerts = prefix + "/log/alerts.json";
    const pid_t agent = Spawn(
        {build + "/bin/corvane-agent", "--prefix", prefix, "--alerts", alerts, "--module",
         build + "/module/libprocess_collect_module.so", "--module",
         build + "/module/libnet_collect_module.so", "--module", build + "/module/libproc_det_module.so"},
        prefix + "/log/agent.out");
    std::this_thread::sleep_for(std::chrono::seconds(5));  // modules loaded, subscriptions made

    // Short-lived processes from one spawner process, so that the witness can pick out its forks.
    const pid_t spawner = fork();
    if (spawner == 0) {
        const auto period = std::chrono::nanoseconds(1000000000L / options.rate);
        auto next = Clock::now();
        long made = 0;
        signal(SIGTERM, [](int) {});
        const int out = open((prefix + "/made").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        for (;;) {
            next += period;
            std::this_thread::sleep_until(next);
            const pid_t child = fork();
            if (child == 0) {
                execl("/bin/true", "true", static_cast<char*>(nullptr));
                _exit(127);
            }
            if (child > 0) {
                ++made;
                waitpid(child, nullptr, 0);
            }
            if (getppid() == 1) {
                _exit(0);
            }
            if (made % 100 == 0) {
                const std::string text = std::to_string(made) + "\n";
                if (pwrite(out, text.data(), text.size(), 0) < 0) {
                    _exit(1);
                }
            }
        }
    }
    ForkWitness witness(spawner);
    const bool witnessing = witness.Start();

    std::printf(
        "churn soak: %d idle processes, %d short-lived/s, detaction every 2 s, detroot every 3 s, "
        "%d min, prefix %s\n",
        options.idle, options.rate, options.minutes, prefix.c_str());
    std::printf("%8s %10s %12s %12s %10s\n", "second", "RSS KiB", "forks made", "witnessed", "host procs");
    const auto start = Clock::now();
    const int total = options.minutes * 60;
    bool alive = true;
    for (int second = options.sampleSeconds; second <= total; second += options.sampleSeconds) {
        std::this_thread::sleep_until(start + std::chrono::seconds(second));
        const long rss = ReadRssKiB(agent);
        if (rss < 0 || waitpid(agent, nullptr, WNOHANG) == agent) {
            std::printf("the agent is gone after %d s\n", second);
            alive = false;
            break;
        }
        std::printf("%8d %10ld %12ld %12ld %10d\n", second, rss,
                    std::atol(ReadText(prefix + "/made").c_str()), witness.forks(), CountProcesses());
        std::fflush(stdout);
    }

    kill(spawner, SIGKILL);
    waitpid(spawner, nullptr, 0);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    witness.Stop();
    int status = -1;
    if (alive) {
        kill(agent, SIGTERM);
        waitpid(agent, &status, 0);
    }
    for (const pid_t child : idle) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }

    const std::string log = ReadText(prefix + "/log/agent.log") + ReadText(prefix + "/log/agent.out");
    const std::string alertText = ReadText(alerts);
    std::printf("agent: %s, exit status %d\n", alive ? "ran throughout" : "DIED",
                WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    std::printf("alerts: %ld in all, %ld naming the soak's processes (churn_soak, /usr/bin/true)\n",
                Count(alertText, "\n"), Count(alertText, "churn_soak") + Count(alertText, "/usr/bin/true"));
    std::printf(
        "fork events: %ld made (at the last count), %ld witnessed by a second listener%s (its own "
        "receive overruns: %ld)\n",
        std::atol(ReadText(prefix + "/made").c_str()), witness.forks(),
        witnessing ? "" : " (no witness: netlink refused)", witness.overruns());
    std::printf(
        "agent's account: %ld kernel receive-buffer overruns (each followed by a /proc rescan), %ld "
        "events dropped for a slow subscriber\n",
        SumAfter(log, "process events lost by the kernel ("), SumAfter(log, " caught up; "));
    std::printf("errors in the agent's log: %ld; log kept in %s\n",
                Count(log, "[Error]") + Count(log, "[Critical]"), prefix.c_str());
    return alive ? 0 : 1;
}
