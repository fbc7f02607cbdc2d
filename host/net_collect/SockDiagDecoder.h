#pragma once

#include <cstddef>

#include "collect/NetProcsFullTask.h"

namespace Engine {

// Decodes the replies of a NETLINK_SOCK_DIAG dump of TCP sockets (struct
// inet_diag_msg per socket). Pure, so it can be fed synthetic buffers.
class SockDiagDecoder {
public:
    enum class Status { kMore, kDone, kError };
    struct Result {
        Status status = Status::kMore;
        int error = 0;         // kError: the errno the kernel sent
        size_t malformed = 0;  // messages skipped
    };

    // One recv() worth of messages. AF_INET6 sockets are kept only with an
    // IPv4-mapped remote address (or an unspecified remote and a mapped local
    // one), as IPv4; sockets without an inode are left out.
    static Result Decode(const void* data, size_t length, NetProcsFullTask::NetMap& out);
};

}  // namespace Engine
