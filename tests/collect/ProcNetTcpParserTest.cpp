// The /proc/net/tcp parser on captured tables, and the sock_diag decoder on a synthetic reply.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <tuple>
#include <utility>
#include <vector>

#include "ProcNetTcpParser.h"
#include "SockDiagDecoder.h"
#include "support/FileText.h"

namespace {

using Engine::ProcNetTcpParser;
using NetMap = Engine::NetProcsFullTask::NetMap;

std::string ReadSample(const std::string& file) {
    return TestSupport::ReadText(std::string(CORVANE_TEST_DATA_DIR) + "/collect/" + file);
}

TEST(ProcNetTcpParser, CapturedTablesIncludingMappedIpv6) {
    NetMap map;
    EXPECT_EQ(0u, ProcNetTcpParser::ParseTable(ReadSample("net_tcp"), false, map));
    EXPECT_EQ(0u, ProcNetTcpParser::ParseTable(ReadSample("net_tcp6"), true, map));
    // tcp: a listener on *:2024, one on 127.0.0.1:5000 and both ends of a connection;
    // tcp6: the mapped connection's two ends; the :: listener and the ::1 pair are no IPv4.
    std::vector<long> inodes;
    for (const auto& entry : map) {
        inodes.push_back(entry.first);
    }
    EXPECT_EQ((std::vector<long>{492, 72247, 72248, 72249, 72251, 72252}), inodes);

    auto facts = [&map](long inode) {
        const auto& c = *map.at(inode);
        return std::make_tuple(c.localAddr, c.localPort, c.remoteAddr, c.remotePort, c.state, c.uid, c.text);
    };
    EXPECT_EQ(facts(72249),
              std::make_tuple(inet_addr("127.0.0.1"), 5000u, inet_addr("127.0.0.2"), 40617u, 1, 0u,
                              std::string("127.0.0.1:5000 -> 127.0.0.2:40617 ESTABLISHED")));
    EXPECT_EQ(std::get<6>(facts(72251)), "127.0.0.1:58684 -> 127.0.0.1:5001 ESTABLISHED");
}

TEST(ProcNetTcpParser, OddLines) {
    NetMap map;
    const std::string table =
        "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
        "   0: 0100007F:0016 0A00000A:01BD 01 00000000:00000000 00:00000000 00000000  1000        0 77 1 0\n"
        "   1: 0100007F:0017 0A00000A:01BD 06 00000000:00000000 03:00000000 00000000     0        0 0 3 0\n"
        "   2: 0100007F:0017 0A00000A 01 00000000:00000000 00:00000000 00000000     0        0 78 1 0\n"
        "   3: 0100007F:0018 0A00000A:01BD 01 00000000:00000000 00:00000000\n"
        "   4: 01G0007F:0018 0A00000A:01BD 01 00000000:00000000 00:00000000 00000000     0        0 79 1 0\n"
        "\n";
    // Three malformed lines; the TIME_WAIT line has no inode and is left out.
    EXPECT_EQ(3u, ProcNetTcpParser::ParseTable(table, false, map));
    ASSERT_EQ(1u, map.size());
    EXPECT_EQ(std::make_tuple(map.at(77)->remoteAddr, map.at(77)->remotePort, map.at(77)->uid),
              std::make_tuple(inet_addr("10.0.0.10"), 445u, 1000u));

    // A tcp6 line with an IPv4 word count is malformed, not misread.
    Engine::NetProcsMessage::netProcInfo info;
    EXPECT_EQ(ProcNetTcpParser::LineResult::kMalformed,
              ProcNetTcpParser::ParseLine(
                  "   0: 0100007F:0016 0A00000A:01BD 01 00000000:00000000 00:00000000 00000000 0 0 77 1 0",
                  true, info));
}

TEST(SockDiagDecoder, MappedSocketAndEndOfDump) {
    inet_diag_msg socket{};
    socket.idiag_family = AF_INET6;
    socket.idiag_state = 1;
    socket.idiag_uid = 1000;
    socket.idiag_inode = 4242;
    socket.id.idiag_sport = htons(40000);
    socket.id.idiag_dport = htons(22);
    socket.id.idiag_src[2] = socket.id.idiag_dst[2] = htonl(0x0000FFFF);
    socket.id.idiag_src[3] = inet_addr("192.168.1.2");
    socket.id.idiag_dst[3] = inet_addr("10.1.2.3");
    inet_diag_msg native = socket;  // a plain IPv6 peer: left out
    native.id.idiag_dst[2] = 0;
    native.idiag_inode = 4243;

    std::vector<unsigned char> buffer;
    auto append = [&buffer](unsigned short type, const void* payload, size_t length) {
        nlmsghdr header{};
        header.nlmsg_len = static_cast<unsigned>(NLMSG_LENGTH(length));
        header.nlmsg_type = type;
        const size_t start = buffer.size();
        buffer.resize(start + NLMSG_SPACE(length));
        std::memcpy(&buffer[start], &header, sizeof header);
        std::memcpy(&buffer[start + NLMSG_HDRLEN], payload, length);
    };
    append(20 /* SOCK_DIAG_BY_FAMILY */, &socket, sizeof socket);
    append(20, &native, sizeof native);
    const int done = 0;
    append(NLMSG_DONE, &done, sizeof done);

    NetMap map;
    const auto result = Engine::SockDiagDecoder::Decode(buffer.data(), buffer.size(), map);
    EXPECT_EQ(Engine::SockDiagDecoder::Status::kDone, result.status);
    ASSERT_EQ(1u, map.size());
    const auto& connection = *map.at(4242);
    EXPECT_EQ(
        std::make_tuple(connection.remoteAddr, connection.remotePort, connection.uid, connection.text),
        std::make_tuple(inet_addr("10.1.2.3"), 22u, 1000u, "192.168.1.2:40000 -> 10.1.2.3:22 ESTABLISHED"));

    // An error answer gives the kernel's errno; a code that is no errno gives EPROTO.
    for (const auto& [code, expected] : {std::pair{-ENOBUFS, ENOBUFS}, std::pair{INT_MIN, EPROTO}}) {
        buffer.clear();
        nlmsgerr error{};
        error.error = code;
        append(NLMSG_ERROR, &error, sizeof error);
        const auto failed = Engine::SockDiagDecoder::Decode(buffer.data(), buffer.size(), map);
        EXPECT_EQ(std::make_pair(failed.status, failed.error),
                  std::make_pair(Engine::SockDiagDecoder::Status::kError, expected));
    }
}

}  // namespace
