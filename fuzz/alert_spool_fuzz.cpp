// The spool read back from damaged segments. The input is the segments' bytes: each 0x1e starts
// the next segment right after the one before, each 0x1f starts it after a stretch of 100 missing
// bytes; an odd first byte also cuts the first segment in half once the spool is open. Whatever
// is on disk, every read returns whole JSON lines or moves forward (never spins before the end),
// and every byte is either delivered or reported lost.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "AlertLine.h"
#include "AlertSpool.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string dir = std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") +
                                   "/corvane-fuzz-spool-" + std::to_string(getpid());
    std::filesystem::remove_all(dir);
    mkdir(dir.c_str(), 0700);
    uint64_t start = 0;
    std::string text;
    for (size_t at = 0; at <= size; ++at) {
        if (at < size && data[at] != 0x1e && data[at] != 0x1f) {
            text.push_back(static_cast<char>(data[at]));
            continue;
        }
        char name[32];
        std::snprintf(name, sizeof(name), "/%020llu.seg", static_cast<unsigned long long>(start));
        std::ofstream(dir + name, std::ios::binary) << text;
        start += text.size() + (at < size && data[at] == 0x1f ? 100 : 0);
        text.clear();
    }
    std::ofstream(dir + "/fuzz.pos") << "0\n";

    Agent::AlertSpool spool(dir, 1ull << 30);
    std::string error;
    if (spool.Open(error) != Agent::AlertSpool::OpenResult::kOpen) {
        std::abort();
    }
    uint64_t cursor = spool.LoadCursor("fuzz");
    if (size > 0 && (data[0] & 1) != 0) {
        const std::string first = dir + "/00000000000000000000.seg";
        truncate(first.c_str(), static_cast<off_t>(std::filesystem::file_size(first) / 2));
    }
    uint64_t delivered = 0;
    for (int reads = 0;; ++reads) {
        std::vector<std::string> lines;
        uint64_t from = cursor;
        if (reads > 100000 || !spool.Read(from, 3, 1 << 20, lines) || from < cursor) {
            std::abort();
        }
        if (lines.empty() && from == cursor) {
            break;
        }
        for (const std::string& line : lines) {
            if (line.back() != '\n' || !Agent::AlertLine::IsDocument(line.data(), line.size() - 1)) {
                std::abort();
            }
            from += line.size();
            delivered += line.size();
        }
        cursor = from;
    }
    // Read to the end (a reader stopping short would spin), with each byte delivered or reported lost.
    if (cursor != spool.GetEnd() || delivered + spool.GetLostBytes() != spool.GetEnd()) {
        std::abort();
    }
    std::filesystem::remove_all(dir);  // libFuzzer may end the process without running exit handlers
    return 0;
}
