#pragma once

#include <cstddef>
#include <string_view>

#include "collect/NetProcsFullTask.h"

namespace Engine {

// Parses the text of /proc/net/tcp and /proc/net/tcp6. Pure, fed from strings.
// Addresses keep the form the kernel prints: each hex word is the address's
// 32 bits as stored (network byte order), so it equals what inet_addr gives.
class ProcNetTcpParser {
public:
    enum class LineResult { kConnection, kSkipped, kMalformed };

    // One line (without the newline). tcp6 lines are taken only for IPv4-mapped
    // remote addresses (or an unspecified remote with a mapped local address).
    // The text field is left to ParseTable, which formats only what it keeps.
    static LineResult ParseLine(std::string_view line, bool ipv6, NetProcsMessage::netProcInfo& out);

    // A whole file; the header line is skipped, connections without an inode
    // (TIME_WAIT, pending requests) left out. Returns the number of malformed lines.
    static size_t ParseTable(std::string_view text, bool ipv6, NetProcsFullTask::NetMap& out);
};

}  // namespace Engine
