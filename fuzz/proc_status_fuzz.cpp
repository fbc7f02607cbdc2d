// /proc/PID/status.
#include <cstddef>
#include <cstdint>
#include <string>

#include "ProcParsers.h"
#include "ProcRecordParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    SDK::ProcessUtils::procStatus sdkStatus;
    SDK::ParseStatusText(text, sdkStatus);
    Engine::ProcStatusFields fields;
    Engine::ProcRecordParser::ParseStatus(text, fields);
    return 0;
}
