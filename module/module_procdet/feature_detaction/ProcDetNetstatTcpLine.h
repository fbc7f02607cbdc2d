#pragma once

#include <string>

namespace Engine {

// The fields of one /proc/net/tcp data line that the network detector uses.
struct ProcNetTcpLine {
    unsigned int remoteAddr = 0;  // as the kernel prints it: the in-memory value, as inet_addr gives it
    unsigned int remotePort = 0;
    int state = 0;  // kernel TCP state: 1 established, 2 SYN sent, 10 listen, ...
    long inode = 0;
};

// Parses one data line ("sl local rem st ... uid timeout inode ..."). False for
// the header, for lines with fewer than 11 fields and for malformed numbers.
bool ParseProcNetTcpLine(const std::string& line, ProcNetTcpLine& out);

}  // namespace Engine
