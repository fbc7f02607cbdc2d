#include "ProcNetTcpParser.h"

#include <arpa/inet.h>

#include <memory>

#include "TcpConnectionText.h"
#include "sdk/ProcParsers.h"

namespace Engine {

namespace {

bool IsMappedIpv4(const uint32_t* words) {
    return words[0] == 0 && words[1] == 0 && words[2] == htonl(0x0000FFFFu);
}

bool IsUnspecified(const uint32_t* words) {
    return (words[0] | words[1] | words[2] | words[3]) == 0;
}

}  // namespace

ProcNetTcpParser::LineResult ProcNetTcpParser::ParseLine(std::string_view line, bool ipv6,
                                                         NetProcsMessage::netProcInfo& out) {
    SDK::NetTcpLineFields fields;
    if (!SDK::ParseNetTcpLine(line, ipv6, fields)) {
        return LineResult::kMalformed;
    }
    if (ipv6 &&
        !(IsMappedIpv4(fields.remote) || (IsUnspecified(fields.remote) && IsMappedIpv4(fields.local)))) {
        return LineResult::kSkipped;
    }
    // A mapped address's IPv4 part is its last word; an unspecified one is 0.
    const size_t word = ipv6 ? 3 : 0;
    out.localAddr = ipv6 && !IsMappedIpv4(fields.local) ? 0 : fields.local[word];
    out.remoteAddr = ipv6 && !IsMappedIpv4(fields.remote) ? 0 : fields.remote[word];
    out.localPort = fields.localPort;
    out.remotePort = fields.remotePort;
    out.state = fields.state;
    out.uid = fields.uid;
    out.inode = fields.inode;
    return LineResult::kConnection;
}

size_t ProcNetTcpParser::ParseTable(std::string_view text, bool ipv6, NetProcsFullTask::NetMap& out) {
    size_t malformed = 0;
    size_t lineStart = text.find('\n');  // the header
    while (lineStart != std::string_view::npos && lineStart + 1 < text.size()) {
        ++lineStart;
        size_t lineEnd = text.find('\n', lineStart);
        const std::string_view line = text.substr(
            lineStart, lineEnd == std::string_view::npos ? std::string_view::npos : lineEnd - lineStart);
        lineStart = lineEnd;
        if (line.find_first_not_of(" \t") == std::string_view::npos) {
            continue;
        }
        NetProcsMessage::netProcInfo connection;
        switch (ParseLine(line, ipv6, connection)) {
            case LineResult::kConnection:
                if (connection.inode != 0) {
                    const long inode = connection.inode;
                    connection.text = TcpConnectionText::Format(connection);
                    out[inode] = std::make_shared<NetProcsMessage::netProcInfo>(std::move(connection));
                }
                break;
            case LineResult::kMalformed:
                ++malformed;
                break;
            case LineResult::kSkipped:
                break;
        }
    }
    return malformed;
}

}  // namespace Engine
