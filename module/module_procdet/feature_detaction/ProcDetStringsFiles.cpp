#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "feature_detaction/ProcDetStringsFiles.h"

#include "ProcDetLog.h"
#include "sdk/ProcessUtils.h"
#include "sdk/StrUtils.h"

namespace Engine {

namespace {

// Log lines and CPU governor calls name the detector, whichever of its classes runs.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detaction/ProcDetStrings";
constexpr const char* kTaskName = "detaction_full_task";
constexpr const char* kDeletedMark = " (deleted)";
constexpr unsigned int kMapsLinesPerPace = 100;
constexpr int kMapsPathField = 6;

// Start of the sixth blank-separated field of a maps line, or null. Only the space
// character separates fields, so a path with blanks in it stays whole.
const char* FindPathField(const char* line) {
    const char* p = line;
    int field = 0;
    while (*p != '\0') {
        while (*p == ' ') {
            ++p;
        }
        if (*p == '\0') {
            return nullptr;
        }
        if (++field == kMapsPathField) {
            return p;
        }
        while (*p != '\0' && *p != ' ') {
            ++p;
        }
    }
    return nullptr;
}

}  // namespace

void ProcDetStringsFiles::Configure(int64_t maxFileSize, Poco::Logger* logger) {
    maxFileSize_ = maxFileSize;
    logger_ = logger;
}

bool ProcDetStringsFiles::ResolvePath(const std::string& path, std::string& resolved) {
    if (path.size() > kMaxPathLength) {
        return false;
    }
    char buffer[kMaxPathLength + 1] = {0};
    static_assert(PATH_MAX <= kMaxPathLength + 1, "realpath writes up to PATH_MAX bytes");
    if (realpath(path.c_str(), buffer) == nullptr) {
        return false;
    }
    resolved = buffer;
    return true;
}

FILE* ProcDetStringsFiles::OpenForReading(const std::string& resolved) {
    // Whatever the path now is, it is read as fopen's "r" would read it (the reader
    // stops at maxFileSize, so a device is bounded too). O_NONBLOCK only keeps a FIFO,
    // which NeedToCheck refuses but which may replace a file after its stat, from
    // holding the cycle until a writer comes: it then reads as empty.
    const int fd = open(resolved.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    FILE* file = fdopen(fd, "r");
    if (file == nullptr) {
        close(fd);
    }
    return file;
}

bool ProcDetStringsFiles::NeedToCheck(const std::string& path, long& size) const {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        PROCDET_DEBUG(logger_, "get stat of [%s] failed.", path);
        return false;
    }
    bool verified = false;
    return PassesStatChecks(path, st, size) && PassesHeaderCheck(path, verified);
}

bool ProcDetStringsFiles::PassesStatChecks(const std::string& path, const struct stat& st, long& size) const {
    if (!S_ISREG(st.st_mode)) {
        PROCDET_DEBUG(logger_, "%s is not regular file", path);
        return false;
    }
    size = static_cast<long>(st.st_size);
    if (size > maxFileSize_) {
        // The text takes int; sizes past 2 GiB print truncated.
        PROCDET_DEBUG(logger_, "str [%s] size:%d > %d", path, static_cast<int>(size),
                      static_cast<int>(maxFileSize_));
        return false;
    }
    return true;
}

bool ProcDetStringsFiles::PassesHeaderCheck(const std::string& path, bool& verified) const {
    bool isElf = false;
    verified = false;
    if (!IsElf(path, isElf)) {
        // An unreadable header does not exclude the file; the reader fails on it in turn.
        return true;
    }
    if (!isElf) {
        PROCDET_DEBUG(logger_, "[%s] is not elf. ignore", path);
        return false;
    }
    verified = true;
    return true;
}

bool ProcDetStringsFiles::IsElf(const std::string& path, bool& isElf) const {
    std::string resolved;
    if (!ResolvePath(path, resolved)) {
        return false;
    }
    FILE* file = OpenForReading(resolved);
    if (file == nullptr) {
        PROCDET_DEBUG(logger_, "open %s failed to check elf.", path);
        return false;
    }
    unsigned char header[6] = {0};
    if (fread(header, 1, sizeof(header), file) == sizeof(header)) {
        // Class and byte order are not examined: 32- and 64-bit, either order.
        isElf = header[0] == 0x7F && header[1] == 'E' && header[2] == 'L' && header[3] == 'F';
    } else {
        isElf = false;
    }
    fclose(file);
    return true;
}

bool ProcDetStringsFiles::ParseMaps(int pid, const bool& running, std::set<std::string>& files) const {
    const std::string mapsPath = SDK::ProcessUtils::GetProcessFilePath(pid, "maps");
    // "/proc/N/maps" holds no link to resolve: opened directly, a process that has
    // gone fails with ENOENT (ESRCH while it is being reaped), silently as before.
    const int fd = open(mapsPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno != ENOENT && errno != ESRCH) {
            PROCDET_DEBUG(logger_, "read [%s] failed.", mapsPath);
        }
        return false;
    }
    FILE* maps = fdopen(fd, "r");
    if (maps == nullptr) {
        close(fd);
        PROCDET_DEBUG(logger_, "read [%s] failed.", mapsPath);
        return false;
    }
    // The kernel fills what one read asks for: a big buffer takes the usual maps in one
    // or two reads rather than one per KiB.
    std::vector<char> buffer(kReadBlock);
    setvbuf(maps, buffer.data(), _IOFBF, buffer.size());
    ParseMapsStream(maps, running, files);
    fclose(maps);
    return true;
}

void ProcDetStringsFiles::ParseMapsStream(FILE* maps, const bool& running,
                                          std::set<std::string>& files) const {
    char* line = nullptr;
    size_t capacity = 0;
    uint32_t lines = 0;
    // Bounded by the kernel: a maps line is at most a path (PATH_MAX) and its fixed fields, and a
    // process has at most vm.max_map_count mappings; only one line is held at a time.
    while (running && getline(&line, &capacity, maps) > 0) {
        const char* field = FindPathField(line);
        std::string path;
        if (field != nullptr && *field == '/' && IsValidFilePath(field, path)) {
            files.insert(path);
        }
        ++lines;
        if ((lines & 0xFFFF) % kMapsLinesPerPace == 0) {
            PROCDET_PACE_CPU(kTaskName);
        }
    }
    free(line);
}

bool ProcDetStringsFiles::IsValidFilePath(const char* text, std::string& path) const {
    path = text;
    SDK::StrUtils::Trim(path);
    if (path.empty()) {
        return false;
    }
    const size_t deleted = path.find(kDeletedMark);
    if (deleted != std::string::npos) {
        path.resize(deleted);
    }
    return true;
}

}  // namespace Engine
