// /proc/PID/maps lines as the strings detector reads them: the mapped paths are the process's own.
#include <stdio.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "feature_detaction/ProcDetStrings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;  // fmemopen wants a buffer
    }
    FILE* maps = fmemopen(const_cast<uint8_t*>(data), size, "r");
    if (maps == nullptr) {
        return 0;
    }
    static Engine::ProcDetStrings detector;
    const bool running = true;
    std::set<std::string> files;
    detector.ParseMapsStream(maps, running, files);
    fclose(maps);
    return 0;
}
