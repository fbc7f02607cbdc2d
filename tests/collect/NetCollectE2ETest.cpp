// The network-collect module on this machine: a loopback connection opened by the test.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tuple>

#include "CollectHost.h"
#include "ProcNetTcpSource.h"
#include "SockDiagSource.h"
#include "collect/NetProcsFullTask.h"
#include "support/WaitFor.h"

namespace {

using TestSupport::WaitFor;

struct Fd {
    ~Fd() { ::close(fd); }
    int get() const { return fd; }
    int fd;
};

TEST(NetCollectE2E, LoopbackConnectionAppearsWithItsInode) {
    Fd listener{::socket(AF_INET, SOCK_STREAM, 0)};
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr("127.0.0.1");
    socklen_t length = sizeof address;
    ASSERT_EQ(0, ::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, ::listen(listener.get(), 1));
    ASSERT_EQ(0, ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length));
    Fd client{::socket(AF_INET, SOCK_STREAM, 0)};
    ASSERT_EQ(0, ::connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
    Fd accepted{::accept(listener.get(), nullptr, nullptr)};
    struct stat socketStat {};
    ASSERT_EQ(0, ::fstat(client.get(), &socketStat));
    const long inode = static_cast<long>(socketStat.st_ino);
    const unsigned port = ntohs(address.sin_port);

    CollectHost host;
    auto* task = host.Find<Engine::NetProcsFullTask>(Engine::NetProcsFullTask::kTaskName);
    ASSERT_NE(nullptr, task);
    Engine::NetProcsFullTask::NetMap map;
    ASSERT_TRUE(WaitFor([&] { return task->GetNetCacheMap(map) > 0 && map.count(inode) == 1; }, 10000));
    const auto& connection = *map.at(inode);
    EXPECT_EQ(std::make_tuple(connection.remoteAddr, connection.remotePort, connection.state, connection.uid),
              std::make_tuple(inet_addr("127.0.0.1"), port, 1, 0u));

    // Both ways of listing connections see the same connection the same way.
    Engine::NetProcsFullTask::NetMap fromProc;
    Engine::NetProcsFullTask::NetMap fromDiag;
    std::string error;
    ASSERT_TRUE(Engine::ProcNetTcpSource("/proc").Collect(fromProc, error)) << error;
    ASSERT_TRUE(Engine::SockDiagSource().Collect(fromDiag, error)) << error;
    ASSERT_EQ(1u, fromProc.count(inode));
    ASSERT_EQ(1u, fromDiag.count(inode));
    EXPECT_EQ(fromProc.at(inode)->text, fromDiag.at(inode)->text);  // both ends, ports and state
    // The listener is there too, in state 10.
    struct stat listenerStat {};
    ASSERT_EQ(0, ::fstat(listener.get(), &listenerStat));
    ASSERT_EQ(1u, fromDiag.count(static_cast<long>(listenerStat.st_ino)));
    EXPECT_EQ(10, fromDiag.at(static_cast<long>(listenerStat.st_ino))->state);
}

}  // namespace
