// /proc/PID/cmdline: whatever bytes a process put in its arguments. The joined
// text keeps the bound, holds no NUL and no trailing blank that was a NUL, and is
// the raw text's prefix with NULs turned into blanks.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "sdk/ProcParsers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string raw(reinterpret_cast<const char*>(data), size);
    const size_t maxLength = size == 0 ? 0 : data[0] * 16u;
    std::string joined;
    SDK::JoinCmdline(raw, maxLength, joined);
    if (joined.size() > maxLength || joined.size() > raw.size() ||
        (!joined.empty() && raw[joined.size() - 1] == '\0')) {
        std::abort();
    }
    for (size_t i = 0; i < joined.size(); ++i) {
        if (joined[i] != (raw[i] == '\0' ? ' ' : raw[i])) {
            std::abort();
        }
    }
    // Only NULs may be dropped between the bound and the joined text.
    for (size_t i = joined.size(); i < std::min(raw.size(), maxLength); ++i) {
        if (raw[i] != '\0') {
            std::abort();
        }
    }
    return 0;
}
