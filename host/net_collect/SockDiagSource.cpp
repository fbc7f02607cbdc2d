#include "SockDiagSource.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "NetCollectModule.h"
#include "SockDiagDecoder.h"
#include "sdk/HostLog.h"

namespace Engine {

namespace {

// TIME_WAIT and pending requests have no inode; asking for them only costs time.
constexpr unsigned int kWantedStates = 0xFFFu & ~((1u << 6) | (1u << 12));

std::string Describe(const char* what, int error) {
    return std::string(what) + ": " + std::strerror(error);
}

}  // namespace

bool SockDiagSource::Collect(NetProcsFullTask::NetMap& out, std::string& error) {
    out.clear();
    const int fd = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd < 0) {
        error = Describe("socket(NETLINK_SOCK_DIAG)", errno);
        return false;
    }
    const bool ok = Dump(fd, AF_INET, out, error) && Dump(fd, AF_INET6, out, error);
    ::close(fd);
    return ok;
}

bool SockDiagSource::Dump(int fd, unsigned char family, NetProcsFullTask::NetMap& out, std::string& error) {
    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.header.nlmsg_seq = ++sequence_;
    message.request.sdiag_family = family;
    message.request.sdiag_protocol = IPPROTO_TCP;
    message.request.idiag_states = kWantedStates;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(fd, &message, sizeof message, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) < 0) {
        error = Describe("sendto(NETLINK_SOCK_DIAG)", errno);
        return false;
    }
    size_t malformed = 0;
    // Each datagram is at most the buffer; the dump as a whole holds one record per TCP socket
    // in the wanted states, which the kernel bounds by the host's socket count.
    for (;;) {
        const ssize_t got = ::recv(fd, buffer_.data(), buffer_.size(), 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = Describe("recv(NETLINK_SOCK_DIAG)", errno);
            return false;
        }
        if (got == 0) {
            error = "NETLINK_SOCK_DIAG: dump ended without NLMSG_DONE";
            return false;
        }
        const auto result = SockDiagDecoder::Decode(buffer_.data(), static_cast<size_t>(got), out);
        malformed += result.malformed;
        if (result.status == SockDiagDecoder::Status::kError) {
            // A kernel without IPv6 refuses AF_INET6; IPv4 is what matters.
            if (family == AF_INET6 && (result.error == EAFNOSUPPORT || result.error == ENOENT)) {
                return true;
            }
            error = Describe("NETLINK_SOCK_DIAG dump", result.error);
            return false;
        }
        if (result.status == SockDiagDecoder::Status::kDone) {
            break;
        }
    }
    if (malformed > 0) {
        HOST_MODULE_LOG_ERROR(kNetCollectModuleName, "NETLINK_SOCK_DIAG: " + std::to_string(malformed) +
                                                         " malformed replies skipped");
    }
    return true;
}

}  // namespace Engine
