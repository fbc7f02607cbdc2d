#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace NetstatTest {

inline long Ip(const char* dotted) {
    return static_cast<long>(static_cast<uint32_t>(inet_addr(dotted)));
}

// A TCP socket listening on `ip` (ephemeral port), or -1; `address` tells where.
inline int Listen(const char* ip, sockaddr_in& address) {
    address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(ip);
    socklen_t length = sizeof(address);
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd, 4) != 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A socket connected to `address`, or -1.
inline int Connect(const sockaddr_in& address) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace NetstatTest
