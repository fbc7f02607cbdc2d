// /proc/PID/status. A successful parse must describe the text: the fields written
// back as a kernel would parse to the same values, and `name` lies within the text.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "sdk/ProcParsers.h"

namespace {

std::string Ids(const char* key, unsigned a, unsigned b, unsigned c, unsigned d) {
    return std::string(key) + ":\t" + std::to_string(a) + "\t" + std::to_string(b) + "\t" +
           std::to_string(c) + "\t" + std::to_string(d) + "\n";
}

std::string Cap(const char* key, uint64_t value) {
    char hex[17];
    std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(value));
    return std::string(key) + ":\t" + hex + "\n";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    SDK::ProcStatusFields status;
    const bool complete = SDK::ParseStatus(text, status);
    if (complete != (status.hasName && status.hasUid && status.hasGid) ||
        (status.hasName && (status.name.data() < text.data() ||
                            status.name.data() + status.name.size() > text.data() + text.size()))) {
        std::abort();
    }
    if (!complete || status.name.find('\n') != std::string_view::npos) {
        return 0;
    }
    const std::string again =
        "Name:\t" + std::string(status.name) + "\nPPid:\t" + std::to_string(status.ppid) + "\n" +
        Ids("Uid", status.uid, status.euid, status.suid, status.fsuid) +
        Ids("Gid", status.gid, status.egid, status.sgid, status.fsgid) + Cap("CapPrm", status.capPrm) +
        Cap("CapEff", status.capEff) + Cap("CapBnd", status.capBnd);
    SDK::ProcStatusFields reparsed;
    if (!SDK::ParseStatus(again, reparsed) || reparsed.name != status.name || reparsed.uid != status.uid ||
        reparsed.euid != status.euid || reparsed.suid != status.suid || reparsed.gid != status.gid ||
        reparsed.egid != status.egid || reparsed.sgid != status.sgid || reparsed.capEff != status.capEff ||
        reparsed.capPrm != status.capPrm || reparsed.capBnd != status.capBnd) {
        std::abort();
    }
    return 0;
}
