#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "NetstatTestPeer.h"
#include "NetstatTestUtil.h"
#include "feature_detaction/ProcDetNetstat.h"
#include "support/ChildProcess.h"
#include "support/FileText.h"
#include "support/TestEngine.h"

namespace {

using Engine::ProcDetNetstat;
using NetstatTest::Ip;
using Peer = Engine::ProcDetNetstatTestPeer;

// Real sockets of this process; their inodes, in order, stand in for connections of the
// synthetic table.
struct Sockets {
    explicit Sockets(size_t count) {
        for (size_t i = 0; i < count; ++i) {
            struct stat info {};
            fds.push_back(socket(AF_INET, SOCK_STREAM, 0));
            inodes.push_back(fstat(fds.back(), &info) == 0 ? static_cast<long>(info.st_ino) : -1);
        }
        std::sort(inodes.begin(), inodes.end());
    }
    ~Sockets() { std::for_each(fds.begin(), fds.end(), close); }
    long operator[](size_t i) const { return inodes.at(i); }
    std::vector<int> fds;
    std::vector<long> inodes;
};

struct Verdict {
    unsigned int flags = 0;
    Engine::NumDetails num;
    Engine::StrDetails str;
    bool result = false;
};

Verdict Check(ProcDetNetstat& detector, int pid, unsigned int flags = 0) {
    Verdict v;
    v.flags = flags;
    v.result = detector.CheckProcess(TestSupport::MakeProc(pid, "/usr/bin/test"), v.flags, v.num, v.str);
    return v;
}

class NetstatDetectorTest : public ::testing::Test {
protected:
    TestSupport::TestEngine env;
    ProcDetNetstat detector;
    const int self = getpid();
};

TEST_F(NetstatDetectorTest, BlacklistedConnectionReportsLowestInode) {
    Sockets s(3);
    env.net().AddConnection(s[2], "10.0.0.9", 80, 1);
    env.net().AddConnection(s[0], "10.0.0.8", 443, 1);
    env.net().AddConnection(s[1], "10.0.0.7", 80, 1);
    // Not a socket of this process.
    env.net().AddConnection(s[2] + 100000, "10.0.0.6", 80, 1);
    detector.SetBlackip({Ip("10.0.0.6"), Ip("10.0.0.8"), Ip("10.0.0.9")});

    ASSERT_TRUE(detector.Prepare());
    Verdict v = Check(detector, self, Engine::HIGHCPU);
    EXPECT_EQ(std::make_tuple(v.result, v.flags, v.num, v.str.empty()),
              std::make_tuple(true, Engine::HIGHCPU | Engine::CONNECT_BIP,
                              Engine::NumDetails{{"dt_bip", Ip("10.0.0.8")}}, true));

    // With no blacklisted or watched connection nothing is read; a process that is gone is
    // passed over, and the detector goes on.
    detector.SetBlackip({});
    ASSERT_TRUE(detector.Prepare());
    EXPECT_EQ(Check(detector, self).flags, 0u);
    detector.SetBlackip({Ip("10.0.0.8")});
    ASSERT_TRUE(detector.Prepare());
    v = Check(detector, TestSupport::DeadPid());
    EXPECT_EQ(std::make_pair(v.result, v.flags), std::make_pair(true, 0u));
}

TEST_F(NetstatDetectorTest, WatchesLiveConnectionsToRemoteServicePorts) {
    Sockets s(6);
    env.net().AddConnection(s[0], "10.0.0.1", 445, 1);
    env.net().AddConnection(s[1], "10.0.0.2", 22, 2);
    env.net().AddConnection(s[2], "10.0.0.3", 139, 1);
    env.net().AddConnection(s[3], "10.0.0.4", 445, 10);  // listening
    env.net().AddConnection(s[4], "10.0.0.5", 80, 1);
    env.net().AddConnection(s[5], "10.0.0.6", 22, 6);  // time-wait

    ASSERT_TRUE(detector.Prepare());
    const std::map<long, unsigned int> expected = {{s[0], 445}, {s[1], 22}, {s[2], 139}};
    EXPECT_EQ(Peer::WatchedInodes(detector), expected);

    Verdict v = Check(detector, self);
    EXPECT_EQ(v.flags, 0u);
    const std::set<unsigned int> ports = {22, 139, 445};
    EXPECT_EQ(Peer::CurPeers(detector)[self], ports);
    detector.Finish();
    EXPECT_EQ(Peer::PrevPeers(detector)[self], ports);
}

// Watched values as /proc/net/tcp notes them: one remote address per socket.
TEST_F(NetstatDetectorTest, LoginOthersWhenSixTenthsOfLastCyclePeersRepeat) {
    Sockets s(10);
    auto watch = [&](size_t count, bool samePeer) {
        ASSERT_TRUE(detector.Prepare());
        auto& watched = Peer::WatchedInodes(detector);
        for (size_t i = 0; i < count; ++i) {
            watched[s[i]] = static_cast<unsigned int>(Ip("10.0.1.1")) + (samePeer ? 0 : (i << 24));
        }
    };

    // First cycle: ten peers, nothing to compare with yet.
    watch(10, false);
    Verdict v = Check(detector, self);
    EXPECT_EQ(v.flags, 0u);
    detector.Finish();
    ASSERT_EQ(Peer::PrevPeers(detector)[self].size(), 10u);

    // 10 * 6 / 10 = 6 repeated sockets are needed.
    watch(5, false);
    v = Check(detector, self);
    EXPECT_EQ(v.flags, 0u);

    watch(6, false);
    v = Check(detector, self, Engine::CONNECT_BIP);
    EXPECT_EQ(v.flags, Engine::CONNECT_BIP | Engine::LOGIN_OTHERS);
    EXPECT_EQ(v.num["dt_conn_sum"], 10);

    // Counted per socket: six sockets to one repeated peer are enough.
    watch(6, true);
    v = Check(detector, self);
    EXPECT_EQ(v.flags, Engine::LOGIN_OTHERS);

    // Another pid with the same sockets has no previous set of its own.
    {
        TestSupport::ChildProcess child([](const std::function<void()>& ready) {
            ready();
            pause();
        });
        watch(10, false);
        v = Check(detector, child.pid());
        EXPECT_EQ(v.flags, 0u);
        v = Check(detector, self);
        EXPECT_EQ(v.flags, Engine::LOGIN_OTHERS);
        detector.Finish();
        EXPECT_EQ(Peer::PrevPeers(detector)[child.pid()].size(), 10u);
    }

    // Nine or fewer previous peers never count, however many repeat.
    Peer::PrevPeers(detector)[self] = {};
    for (size_t i = 0; i < 9; ++i) {
        Peer::PrevPeers(detector)[self].insert(static_cast<unsigned int>(Ip("10.0.1.1")) + (i << 24));
    }
    watch(9, false);
    v = Check(detector, self);
    EXPECT_EQ(v.flags, 0u);
}

TEST_F(NetstatDetectorTest, ProcNetTcpNotesAddresses) {
    const std::vector<std::string> lines =
        TestSupport::ReadLines(CORVANE_SOURCE_DIR "/tests/module/netstat/data/proc_net_tcp");
    ASSERT_EQ(lines.size(), 6u);
    detector.SetBlackip({Ip("127.0.0.2")});
    ASSERT_TRUE(detector.Prepare());
    for (const std::string& line : lines) {
        Peer::NoteProcNetTcpLine(detector, line);
    }
    // Ten fields parse, but a connection line of the kernel has more.
    Peer::NoteProcNetTcpLine(detector, "   5: 0100007F:CD34 0200007F:B4AF 01 0:0 00:0 0 0 0 77");
    const std::map<long, unsigned int> black = {{12090, static_cast<unsigned int>(Ip("127.0.0.2"))}};
    EXPECT_EQ(Peer::BlackInodes(detector), black);
    // Here the watched value is the remote address, not the port.
    const std::map<long, unsigned int> watched = {{12092, static_cast<unsigned int>(Ip("10.255.255.1"))}};
    EXPECT_EQ(Peer::WatchedInodes(detector), watched);
}

}  // namespace
