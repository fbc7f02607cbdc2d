#include "ProcNetTcpParser.h"

#include <arpa/inet.h>

#include <memory>

#include "TcpConnectionText.h"

namespace Engine {

namespace {

// Splits off the next blank-separated field.
std::string_view NextField(std::string_view line, size_t& pos) {
    while (pos < line.size() && (line[pos] == ' ' || line[pos] == '\t')) {
        ++pos;
    }
    const size_t start = pos;
    while (pos < line.size() && line[pos] != ' ' && line[pos] != '\t') {
        ++pos;
    }
    return line.substr(start, pos - start);
}

bool ParseHex(std::string_view text, unsigned long long& value) {
    if (text.empty() || text.size() > 16) {
        return false;
    }
    unsigned long long result = 0;
    for (const char c : text) {
        unsigned digit;
        if (c >= '0' && c <= '9') {
            digit = static_cast<unsigned>(c - '0');
        } else if (c >= 'A' && c <= 'F') {
            digit = static_cast<unsigned>(c - 'A' + 10);
        } else if (c >= 'a' && c <= 'f') {
            digit = static_cast<unsigned>(c - 'a' + 10);
        } else {
            return false;
        }
        result = (result << 4) | digit;
    }
    value = result;
    return true;
}

bool ParseDecimal(std::string_view text, unsigned long long& value) {
    if (text.empty() || text.size() > 19) {
        return false;
    }
    unsigned long long result = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        result = result * 10 + static_cast<unsigned>(c - '0');
    }
    value = result;
    return true;
}

enum class AddressKind { kIpv4, kMappedIpv4, kUnspecified, kOtherIpv6 };

// "0100007F:1388" or, for tcp6, four words then ":port".
bool ParseEndpoint(std::string_view text, bool ipv6, unsigned int& address, unsigned int& port,
                   AddressKind& kind) {
    const size_t colon = text.find(':');
    const size_t wordCount = ipv6 ? 4 : 1;
    unsigned long long portValue = 0;
    if (colon != wordCount * 8 || !ParseHex(text.substr(colon + 1), portValue) || portValue > 0xFFFF) {
        return false;
    }
    unsigned int words[4] = {};
    for (size_t i = 0; i < wordCount; ++i) {
        unsigned long long word = 0;
        if (!ParseHex(text.substr(i * 8, 8), word)) {
            return false;
        }
        words[i] = static_cast<unsigned int>(word);
    }
    port = static_cast<unsigned int>(portValue);
    if (!ipv6) {
        address = words[0];
        kind = AddressKind::kIpv4;
    } else if (words[0] == 0 && words[1] == 0 && words[2] == htonl(0x0000FFFFu)) {
        address = words[3];
        kind = AddressKind::kMappedIpv4;
    } else {
        address = 0;
        const bool unspecified = (words[0] | words[1] | words[2] | words[3]) == 0;
        kind = unspecified ? AddressKind::kUnspecified : AddressKind::kOtherIpv6;
    }
    return true;
}

}  // namespace

ProcNetTcpParser::LineResult ProcNetTcpParser::ParseLine(std::string_view line, bool ipv6,
                                                         NetProcsMessage::netProcInfo& out) {
    size_t pos = 0;
    std::string_view fields[10];
    for (std::string_view& field : fields) {
        field = NextField(line, pos);
        if (field.empty()) {
            return LineResult::kMalformed;
        }
    }
    // fields: sl local remote st tx:rx tr:when retrnsmt uid timeout inode
    if (fields[0].back() != ':') {
        return LineResult::kMalformed;
    }
    AddressKind localKind;
    AddressKind remoteKind;
    unsigned long long state = 0;
    unsigned long long uid = 0;
    unsigned long long inode = 0;
    if (!ParseEndpoint(fields[1], ipv6, out.localAddr, out.localPort, localKind) ||
        !ParseEndpoint(fields[2], ipv6, out.remoteAddr, out.remotePort, remoteKind) ||
        !ParseHex(fields[3], state) || state > 0xFF || !ParseDecimal(fields[7], uid) || uid > 0xFFFFFFFFu ||
        !ParseDecimal(fields[9], inode)) {
        return LineResult::kMalformed;
    }
    if (ipv6 && !(remoteKind == AddressKind::kMappedIpv4 ||
                  (remoteKind == AddressKind::kUnspecified && localKind == AddressKind::kMappedIpv4))) {
        return LineResult::kSkipped;
    }
    out.state = static_cast<int>(state);
    out.uid = static_cast<unsigned int>(uid);
    out.inode = static_cast<long>(inode);
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
