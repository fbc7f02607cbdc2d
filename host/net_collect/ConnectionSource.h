#pragma once

#include <string>

#include "collect/NetProcsFullTask.h"

namespace Engine {

// A way of listing the host's TCP connections (IPv4 and IPv4-mapped IPv6).
class ConnectionSource {
public:
    virtual ~ConnectionSource() = default;
    virtual const char* Name() const = 0;
    // Fills `out` keyed by inode, sockets without an inode left out. False (with
    // `error` set) when the source cannot be used.
    virtual bool Collect(NetProcsFullTask::NetMap& out, std::string& error) = 0;
};

}  // namespace Engine
