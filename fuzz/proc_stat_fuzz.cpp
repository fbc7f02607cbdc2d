// /proc/PID/stat (and /proc/stat's boot time): a process picks its own comm, parentheses and all.
// A parse that succeeds must describe the text: the same fields written back in the
// kernel's format parse to the same values.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "sdk/ProcParsers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    SDK::ProcStatFields stat;
    if (SDK::ParseStat(text, stat)) {
        if (stat.pid <= 0 || stat.ppid < 0 || stat.startTime < 0 || stat.comm.data() < text.data() ||
            stat.comm.data() + stat.comm.size() > text.data() + text.size()) {
            std::abort();
        }
        const std::string again =
            std::to_string(stat.pid) + " (" + std::string(stat.comm) + ") " + stat.state + " " +
            std::to_string(stat.ppid) + " " + std::to_string(stat.pgrp) + " " + std::to_string(stat.session) +
            " 0 0 0 0 0 0 0 " + std::to_string(stat.utime) + " " + std::to_string(stat.stime) +
            " 0 0 0 0 0 0 " + std::to_string(stat.startTime) + "\n";
        SDK::ProcStatFields reparsed;
        if (!SDK::ParseStat(again, reparsed) || reparsed.pid != stat.pid || reparsed.comm != stat.comm ||
            reparsed.state != stat.state || reparsed.ppid != stat.ppid || reparsed.utime != stat.utime ||
            reparsed.stime != stat.stime || reparsed.startTime != stat.startTime) {
            std::abort();
        }
    }
    int64_t bootTime = 0;
    if (SDK::ParseBootTime(text, bootTime) && bootTime < 0) {
        std::abort();
    }
    return 0;
}
