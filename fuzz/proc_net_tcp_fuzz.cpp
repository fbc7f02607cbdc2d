// /proc/net/tcp and tcp6 tables through the collector's table parser, and every line
// through the one line parser, whose fields must stay within their bounds and read
// back the same when printed again in the kernel's format.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ProcNetTcpParser.h"
#include "sdk/ProcParsers.h"

namespace {

void CheckLine(std::string_view line, bool ipv6) {
    SDK::NetTcpLineFields fields;
    if (!SDK::ParseNetTcpLine(line, ipv6, fields)) {
        return;
    }
    if (fields.fieldCount < 10 || fields.localPort > 0xFFFF || fields.remotePort > 0xFFFF ||
        fields.state < 0 || fields.state > 0xFF || fields.inode < 0) {
        std::abort();
    }
    auto endpoint = [ipv6](const uint32_t* words, unsigned port) {
        char text[48];
        if (ipv6) {
            std::snprintf(text, sizeof text, "%08X%08X%08X%08X:%04X", words[0], words[1], words[2], words[3],
                          port);
        } else {
            std::snprintf(text, sizeof text, "%08X:%04X", words[0], port);
        }
        return std::string(text);
    };
    char tail[96];
    std::snprintf(tail, sizeof tail, " %02X 00000000:00000000 00:00000000 00000000 %u 0 %ld", fields.state,
                  fields.uid, fields.inode);
    const std::string printed = "0: " + endpoint(fields.local, fields.localPort) + " " +
                                endpoint(fields.remote, fields.remotePort) + tail;
    SDK::NetTcpLineFields again;
    if (!SDK::ParseNetTcpLine(printed, ipv6, again) || again.localPort != fields.localPort ||
        again.remotePort != fields.remotePort || again.state != fields.state || again.uid != fields.uid ||
        again.inode != fields.inode || !std::equal(fields.local, fields.local + 4, again.local) ||
        !std::equal(fields.remote, fields.remote + 4, again.remote)) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    Engine::NetProcsFullTask::NetMap table;
    Engine::ProcNetTcpParser::ParseTable(text, false, table);
    Engine::ProcNetTcpParser::ParseTable(text, true, table);
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        end = end == std::string_view::npos ? text.size() : end;
        CheckLine(text.substr(start, end - start), false);
        CheckLine(text.substr(start, end - start), true);
        start = end + 1;
    }
    return 0;
}
