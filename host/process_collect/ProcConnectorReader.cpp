#include "ProcConnectorReader.h"

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "ProcEventDecoder.h"

namespace Engine {

namespace {

std::string Describe(const char* what, int error) {
    return std::string(what) + ": " + std::strerror(error);
}

constexpr unsigned kBatch = 64;         // datagrams per recvmmsg
constexpr size_t kDatagramBytes = 256;  // one event is 76 bytes

}  // namespace

ProcConnectorReader::ProcConnectorReader(int receiveBufferBytes) : wantedBuffer_(receiveBufferBytes) {}

ProcConnectorReader::~ProcConnectorReader() {
    Close();
}

ProcConnectorReader::OpenResult ProcConnectorReader::Open(std::string& detail) {
    Close();
    fd_ = ::socket(PF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR);
    if (fd_ < 0) {
        detail = Describe("socket(NETLINK_CONNECTOR)", errno);
        return OpenResult::kFailed;
    }
    // Bursts of forks must wait in the kernel while a batch is handled.
    if (::setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &wantedBuffer_, sizeof wantedBuffer_) != 0) {
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &wantedBuffer_, sizeof wantedBuffer_);
    }
    socklen_t length = sizeof grantedBuffer_;
    ::getsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &grantedBuffer_, &length);

    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = CN_IDX_PROC;
    address.nl_pid = 0;  // let the kernel pick a port id
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        detail = Describe("bind(CN_IDX_PROC)", error);
        Close();
        return error == EPERM || error == EACCES ? OpenResult::kNoPrivilege : OpenResult::kFailed;
    }
    const int error = SendListen(PROC_CN_MCAST_LISTEN);
    if (error != 0) {
        detail = Describe("send(PROC_CN_MCAST_LISTEN)", error);
        ::close(fd_);
        fd_ = -1;
        return error == EPERM || error == EACCES ? OpenResult::kNoPrivilege : OpenResult::kFailed;
    }
    return OpenResult::kOk;
}

int ProcConnectorReader::SendListen(unsigned op) {
    constexpr size_t kLength = NLMSG_HDRLEN + sizeof(cn_msg) + sizeof(uint32_t);
    unsigned char request[kLength] = {};
    nlmsghdr header{};
    header.nlmsg_len = kLength;
    header.nlmsg_type = NLMSG_DONE;
    header.nlmsg_pid = static_cast<uint32_t>(::getpid());
    cn_msg connector{};
    connector.id.idx = CN_IDX_PROC;
    connector.id.val = CN_VAL_PROC;
    connector.len = sizeof(uint32_t);
    const uint32_t operation = op;
    std::memcpy(request, &header, sizeof header);
    std::memcpy(request + NLMSG_HDRLEN, &connector, sizeof connector);
    std::memcpy(request + NLMSG_HDRLEN + sizeof(cn_msg), &operation, sizeof operation);
    if (::send(fd_, request, sizeof request, 0) != static_cast<ssize_t>(sizeof request)) {
        return errno;
    }
    return 0;
}

void ProcConnectorReader::Close() {
    if (fd_ >= 0) {
        SendListen(PROC_CN_MCAST_IGNORE);  // best effort: closing unsubscribes anyway
        ::close(fd_);
        fd_ = -1;
    }
}

ProcConnectorReader::ReadResult ProcConnectorReader::Receive(int timeoutMs, size_t maxEvents,
                                                             std::vector<ProcEvent>& out, std::string& detail,
                                                             int wakeFd) {
    if (fd_ < 0) {
        detail = "process connector is not open";
        return ReadResult::kFailed;
    }
    pollfd waiters[2] = {{fd_, POLLIN, 0}, {wakeFd, POLLIN, 0}};
    const int ready = ::poll(waiters, wakeFd >= 0 ? 2 : 1, timeoutMs);
    if (ready < 0) {
        if (errno == EINTR) {
            return ReadResult::kOk;
        }
        detail = Describe("poll(process connector)", errno);
        return ReadResult::kFailed;
    }
    if (wakeFd >= 0 && (waiters[1].revents & POLLIN) != 0) {
        uint64_t wakes = 0;
        (void)!::read(wakeFd, &wakes, sizeof wakes);  // non-blocking; only the wake-up matters
    }
    if (waiters[0].revents == 0) {
        return ReadResult::kOk;
    }

    unsigned char buffers[kBatch][kDatagramBytes];
    iovec vectors[kBatch];
    mmsghdr messages[kBatch];
    size_t taken = 0;
    while (taken < maxEvents) {
        std::memset(messages, 0, sizeof messages);
        for (unsigned i = 0; i < kBatch; ++i) {
            vectors[i] = {buffers[i], kDatagramBytes};
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        const int got = ::recvmmsg(fd_, messages, kBatch, MSG_DONTWAIT, nullptr);
        if (got < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
                return ReadResult::kOk;
            }
            if (errno == ENOBUFS) {
                detail = "process connector receive buffer overrun";
                return ReadResult::kOverrun;
            }
            detail = Describe("recvmmsg(process connector)", errno);
            return ReadResult::kFailed;
        }
        for (int i = 0; i < got; ++i) {
            const auto result = ProcEventDecoder::Decode(buffers[i], messages[i].msg_len, out);
            taken += result.events;
            malformed_ += result.malformed;
        }
        if (got < static_cast<int>(kBatch)) {
            return ReadResult::kOk;
        }
    }
    return ReadResult::kOk;
}

}  // namespace Engine
