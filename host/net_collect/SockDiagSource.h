#pragma once

#include <vector>

#include "ConnectionSource.h"

namespace Engine {

// Dumps TCP sockets through NETLINK_SOCK_DIAG (inet_diag_req_v2), AF_INET then AF_INET6.
class SockDiagSource : public ConnectionSource {
public:
    const char* Name() const override { return "sock_diag"; }
    bool Collect(NetProcsFullTask::NetMap& out, std::string& error) override;

private:
    bool Dump(int fd, unsigned char family, NetProcsFullTask::NetMap& out, std::string& error);

    std::vector<unsigned char> buffer_ = std::vector<unsigned char>(64 * 1024);
    unsigned int sequence_ = 0;
};

}  // namespace Engine
