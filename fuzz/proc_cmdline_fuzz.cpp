// /proc/PID/cmdline: whatever bytes a process put in its arguments.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "ProcParsers.h"
#include "ProcRecordParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string raw(reinterpret_cast<const char*>(data), size);
    const size_t maxLength = size == 0 ? 0 : data[0] * 16u;
    if (SDK::JoinCmdlineText(raw, maxLength).size() > maxLength) {
        std::abort();
    }
    std::string joined;
    Engine::ProcRecordParser::JoinCmdline(raw, joined);
    if (joined.size() > Engine::ProcRecordParser::kMaxCmdline) {
        std::abort();
    }
    return 0;
}
