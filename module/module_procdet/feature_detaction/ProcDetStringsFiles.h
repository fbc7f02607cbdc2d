#pragma once

#include <Poco/Logger.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <set>
#include <string>

namespace Engine {

// Which files of a process the strings detector reads: the files mapped into it
// (from /proc/PID/maps), and of those the regular ELF files within the size limit.
// Also how a chosen file is opened, so that the reader opens it the same way.
class ProcDetStringsFiles {
public:
    static constexpr int64_t kDefaultMaxFileSize = 0x200000;  // until Configure
    static constexpr size_t kMaxPathLength = 4096;
    static constexpr size_t kReadBlock = 64 * 1024;  // what one read of a scanned file asks for

    void Configure(int64_t maxFileSize, Poco::Logger* logger);
    int64_t MaxFileSize() const { return maxFileSize_; }

    bool NeedToCheck(const std::string& path, long& size) const;
    bool IsElf(const std::string& path, bool& isElf) const;
    bool ParseMaps(int pid, const bool& running, std::set<std::string>& files) const;
    // The parsing half of ParseMaps, fed from any stream of maps lines.
    void ParseMapsStream(FILE* maps, const bool& running, std::set<std::string>& files) const;
    bool IsValidFilePath(const char* text, std::string& path) const;

    // NeedToCheck's two halves: type and size from a stat, then the ELF header;
    // `verified` tells whether the header was read and found to be ELF.
    bool PassesStatChecks(const std::string& path, const struct stat& st, long& size) const;
    bool PassesHeaderCheck(const std::string& path, bool& verified) const;

    // Resolves `path` (at most kMaxPathLength characters) with realpath.
    static bool ResolvePath(const std::string& path, std::string& resolved);
    // Opens a resolved path for reading without ever blocking on a FIFO; null when
    // it cannot be opened.
    static FILE* OpenForReading(const std::string& resolved);

private:
    int64_t maxFileSize_ = kDefaultMaxFileSize;
    Poco::Logger* logger_ = nullptr;
};

}  // namespace Engine
