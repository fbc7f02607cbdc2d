// Listing TCP connections: NETLINK_SOCK_DIAG against parsing /proc/net/tcp{,6}.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "BenchUtil.h"
#include "ProcNetTcpSource.h"
#include "SockDiagSource.h"

namespace {

void Measure(const char* title, int rounds) {
    Engine::SockDiagSource diag;
    Engine::ProcNetTcpSource proc("/proc");
    std::vector<double> diagMs;
    std::vector<double> procMs;
    size_t diagCount = 0;
    size_t procCount = 0;
    for (int round = 0; round < rounds; ++round) {
        std::string error;
        Engine::NetProcsFullTask::NetMap map;
        diagMs.push_back(TimeMs([&] { diag.Collect(map, error); }));
        diagCount = map.size();
        procMs.push_back(TimeMs([&] { proc.Collect(map, error); }));
        procCount = map.size();
    }
    std::printf("%s: sock_diag %.3f ms (%zu connections), /proc/net/tcp %.3f ms (%zu), proc / diag = %.2f\n",
                title, Median(diagMs), diagCount, Median(procMs), procCount, Median(procMs) / Median(diagMs));
}

}  // namespace

void RunNetBench(int connections, int rounds) {
    Measure("connections, as the machine is", rounds);

    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr("127.0.0.1");
    socklen_t length = sizeof address;
    ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(listener, 4096);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    std::vector<int> fds;
    for (int i = 0; i < connections; ++i) {
        const int client = ::socket(AF_INET, SOCK_STREAM, 0);
        if (client < 0 || ::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            break;
        }
        fds.push_back(client);
        const int accepted = ::accept(listener, nullptr, nullptr);
        if (accepted >= 0) {
            fds.push_back(accepted);
        }
    }
    char title[64];
    std::snprintf(title, sizeof title, "with %zu more loopback sockets", fds.size());
    Measure(title, rounds);
    for (const int fd : fds) {
        ::close(fd);
    }
    ::close(listener);
}
