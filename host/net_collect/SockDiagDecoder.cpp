#include "SockDiagDecoder.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "TcpConnectionText.h"

namespace Engine {

namespace {

template <typename T>
T Load(const unsigned char* at) {
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

bool IsMapped(const __be32 address[4]) {
    return address[0] == 0 && address[1] == 0 && address[2] == htonl(0x0000FFFFu);
}

bool IsUnspecified(const __be32 address[4]) {
    return (address[0] | address[1] | address[2] | address[3]) == 0;
}

// False when the socket is no IPv4 connection.
bool ToConnection(const inet_diag_msg& message, NetProcsMessage::netProcInfo& out) {
    const inet_diag_sockid& id = message.id;
    if (message.idiag_family == AF_INET) {
        out.localAddr = id.idiag_src[0];
        out.remoteAddr = id.idiag_dst[0];
    } else if (message.idiag_family == AF_INET6) {
        if (!(IsMapped(id.idiag_dst) || (IsUnspecified(id.idiag_dst) && IsMapped(id.idiag_src)))) {
            return false;
        }
        out.localAddr = id.idiag_src[3];
        out.remoteAddr = IsMapped(id.idiag_dst) ? id.idiag_dst[3] : 0;
    } else {
        return false;
    }
    out.localPort = ntohs(id.idiag_sport);
    out.remotePort = ntohs(id.idiag_dport);
    out.state = message.idiag_state;
    out.uid = message.idiag_uid;
    out.inode = static_cast<long>(message.idiag_inode);
    return true;
}

}  // namespace

SockDiagDecoder::Result SockDiagDecoder::Decode(const void* data, size_t length,
                                                NetProcsFullTask::NetMap& out) {
    Result result;
    const auto* bytes = static_cast<const unsigned char*>(data);
    size_t offset = 0;
    while (offset + NLMSG_HDRLEN <= length) {
        const auto header = Load<nlmsghdr>(bytes + offset);
        if (header.nlmsg_len < NLMSG_HDRLEN || header.nlmsg_len > length - offset) {
            ++result.malformed;
            break;
        }
        const unsigned char* payload = bytes + offset + NLMSG_HDRLEN;
        const size_t payloadLength = header.nlmsg_len - NLMSG_HDRLEN;
        offset += NLMSG_ALIGN(header.nlmsg_len);
        if (header.nlmsg_type == NLMSG_DONE) {
            result.status = Status::kDone;
            return result;
        }
        if (header.nlmsg_type == NLMSG_ERROR) {
            result.status = Status::kError;
            const int code = payloadLength >= sizeof(nlmsgerr) ? Load<nlmsgerr>(payload).error : 0;
            // The kernel sends a negated errno; any other value (INT_MIN cannot even be negated) is none.
            result.error = code == 0 ? 0 : (code < 0 && code >= -4095 ? -code : EPROTO);
            return result;
        }
        if (payloadLength < sizeof(inet_diag_msg)) {
            ++result.malformed;
            continue;
        }
        NetProcsMessage::netProcInfo connection;
        if (!ToConnection(Load<inet_diag_msg>(payload), connection) || connection.inode == 0) {
            continue;
        }
        connection.text = TcpConnectionText::Format(connection);
        const long inode = connection.inode;
        out[inode] = std::make_shared<NetProcsMessage::netProcInfo>(std::move(connection));
    }
    return result;
}

}  // namespace Engine
