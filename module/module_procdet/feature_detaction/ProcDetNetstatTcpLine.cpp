#include "feature_detaction/ProcDetNetstatTcpLine.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <vector>

#include "sdk/StrUtils.h"

namespace Engine {

namespace {

constexpr size_t kMinFields = 11;
constexpr size_t kRemoteField = 2;
constexpr size_t kStateField = 3;
constexpr size_t kInodeField = 9;

// The whole text must be a number of `base` no larger than `max`.
bool ParseNumber(const std::string& text, int base, unsigned long max, unsigned long& out) {
    if (text.empty() || text[0] == '-' || text[0] == '+') {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, base);
    if (errno != 0 || end == text.c_str() || *end != '\0' || value > max) {
        return false;
    }
    out = value;
    return true;
}

}  // namespace

bool ParseProcNetTcpLine(const std::string& line, ProcNetTcpLine& out) {
    std::vector<std::string> fields;
    SDK::StrUtils::EasySplit(line, fields, " \t\r\n");
    if (fields.size() < kMinFields) {
        return false;
    }
    const std::string& remote = fields[kRemoteField];
    const size_t colon = remote.find(':');
    if (colon == std::string::npos) {
        return false;
    }
    unsigned long addr = 0;
    unsigned long port = 0;
    unsigned long state = 0;
    unsigned long inode = 0;
    if (!ParseNumber(remote.substr(0, colon), 16, UINT_MAX, addr) ||
        !ParseNumber(remote.substr(colon + 1), 16, 0xFFFF, port) ||
        !ParseNumber(fields[kStateField], 16, INT_MAX, state) ||
        !ParseNumber(fields[kInodeField], 10, LONG_MAX, inode)) {
        return false;
    }
    out.remoteAddr = static_cast<unsigned int>(addr);
    out.remotePort = static_cast<unsigned int>(port);
    out.state = static_cast<int>(state);
    out.inode = static_cast<long>(inode);
    return true;
}

}  // namespace Engine
