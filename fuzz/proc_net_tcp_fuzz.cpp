// /proc/net/tcp and tcp6 tables, read by the network collector and, line by line, by the
// network detector.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "ProcNetTcpParser.h"
#include "feature_detaction/ProcDetNetstatTcpLine.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    Engine::NetProcsFullTask::NetMap table;
    Engine::ProcNetTcpParser::ParseTable(text, false, table);
    Engine::ProcNetTcpParser::ParseTable(text, true, table);
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        end = end == std::string_view::npos ? text.size() : end + 1;
        Engine::ProcNetTcpLine line;
        Engine::ParseProcNetTcpLine(std::string(text.substr(start, end - start)), line);
        start = end;
    }
    return 0;
}
