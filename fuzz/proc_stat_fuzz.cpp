// /proc/PID/stat (and /proc/stat's boot time): a process picks its own comm, parentheses and all.
#include <cstddef>
#include <cstdint>
#include <string>

#include "ProcParsers.h"
#include "ProcRecordParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    SDK::ProcStat sdkStat;
    SDK::ParseStatText(text, sdkStat);
    Engine::ProcStatFields fields;
    Engine::ProcRecordParser::ParseStat(text, fields);
    int64_t bootTime = 0;
    Engine::ProcRecordParser::ParseBootTime(text, bootTime);
    return 0;
}
