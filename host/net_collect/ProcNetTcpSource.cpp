#include "ProcNetTcpSource.h"

#include <cerrno>
#include <cstring>

#include "NetCollectModule.h"
#include "ProcNetTcpParser.h"
#include "sdk/FileUtils.h"
#include "sdk/HostLog.h"

namespace Engine {

namespace {

constexpr size_t kMaxTableBytes = 64u << 20;

}  // namespace

ProcNetTcpSource::ProcNetTcpSource(const std::string& procRoot) : root_(procRoot) {}

bool ProcNetTcpSource::Collect(NetProcsFullTask::NetMap& out, std::string& error) {
    out.clear();
    const struct {
        const char* file;
        bool ipv6;
    } tables[] = {{"/net/tcp", false}, {"/net/tcp6", true}};
    for (const auto& table : tables) {
        const std::string path = root_ + table.file;
        // About 150 bytes a socket: the bound is some 450,000 sockets, far beyond a busy server's
        // and still a bounded allocation when a local user opens sockets by the million.
        const int readError = SDK::FileUtils::ReadWholeFile(path, text_, kMaxTableBytes);
        if (readError != 0) {
            // A kernel without IPv6 has no tcp6; IPv4 is what matters.
            if (table.ipv6 && readError == ENOENT) {
                continue;
            }
            error = path + ": " + std::strerror(readError);
            return false;
        }
        const size_t malformed = ProcNetTcpParser::ParseTable(text_, table.ipv6, out);
        if (malformed > 0) {
            HOST_MODULE_LOG_ERROR(kNetCollectModuleName,
                                  path + ": " + std::to_string(malformed) + " malformed lines skipped");
        }
    }
    return true;
}

}  // namespace Engine
