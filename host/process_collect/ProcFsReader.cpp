#include "ProcFsReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "sdk/FileUtils.h"

namespace Engine {

ProcFsReader::ProcFsReader(const std::string& procRoot) : root_(procRoot) {}

bool ProcFsReader::IsVanished(int error) {
    return error == ENOENT || error == ESRCH;
}

bool ProcFsReader::MakePath(char* path, size_t size, int pid, const char* file) const {
    // Four paths per record, for every process of a rescan and every fork event:
    // snprintf's format machinery cost more than the rest of the record's parsing.
    char digits[16];
    size_t count = 0;
    unsigned value = pid < 0 ? 0u - static_cast<unsigned>(pid) : static_cast<unsigned>(pid);
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    if (pid < 0) {
        digits[count++] = '-';
    }
    const size_t fileLength = std::strlen(file);
    const size_t length = root_.size() + 1 + count + 1 + fileLength;
    if (length >= size) {
        return false;
    }
    char* out = path;
    std::memcpy(out, root_.data(), root_.size());
    out += root_.size();
    *out++ = '/';
    while (count > 0) {
        *out++ = digits[--count];
    }
    *out++ = '/';
    std::memcpy(out, file, fileLength + 1);
    return true;
}

int ProcFsReader::ReadInto(const char* path, char* buffer, size_t capacity, size_t& size) {
    size = 0;
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    // procfs hands these files out whole to one read that is large enough; a
    // longer file is cut at the buffer's size.
    ssize_t got;
    do {
        got = ::read(fd, buffer, capacity);
    } while (got < 0 && errno == EINTR);
    const int error = got < 0 ? errno : 0;
    ::close(fd);
    if (got > 0) {
        size = static_cast<size_t>(got);
    }
    return error;
}

bool ProcFsReader::Read(int pid, unsigned parts, ProcFsBuffers& buffers) const {
    char path[PATH_MAX];
    if (parts & kStat) {
        auto& text = buffers.stat;
        text.error = MakePath(path, sizeof path, pid, "stat")
                         ? ReadInto(path, text.data, sizeof text.data, text.size)
                         : ENAMETOOLONG;
        if (IsVanished(text.error)) {
            return false;
        }
    }
    if (parts & kStatus) {
        auto& text = buffers.status;
        text.error = MakePath(path, sizeof path, pid, "status")
                         ? ReadInto(path, text.data, sizeof text.data, text.size)
                         : ENAMETOOLONG;
    }
    if (parts & kCmdline) {
        auto& text = buffers.cmdline;
        text.error = MakePath(path, sizeof path, pid, "cmdline")
                         ? ReadInto(path, text.data, sizeof text.data, text.size)
                         : ENAMETOOLONG;
    }
    if (parts & kExe) {
        auto& text = buffers.exe;
        text.size = 0;
        text.error = 0;
        if (!MakePath(path, sizeof path, pid, "exe")) {
            text.error = ENAMETOOLONG;
        } else {
            const ssize_t got = ::readlink(path, text.data, sizeof text.data);
            if (got < 0) {
                text.error = errno;
            } else if (static_cast<size_t>(got) >= sizeof text.data) {
                text.error = ENAMETOOLONG;
            } else {
                text.size = static_cast<size_t>(got);
            }
        }
    }
    return true;
}

int ProcFsReader::ReadRootFile(const char* name, std::string& out) const {
    // /proc/stat and its kin grow with CPUs and interrupt lines: a few hundred KiB on large machines.
    constexpr size_t kMaxRootFileBytes = 4u << 20;
    return SDK::FileUtils::ReadWholeFile(root_ + "/" + name, out, kMaxRootFileBytes);
}

int ProcFsReader::StatExe(int pid, dev_t& device, ino_t& inode) const {
    char path[PATH_MAX];
    if (!MakePath(path, sizeof path, pid, "exe")) {
        return ENAMETOOLONG;
    }
    struct stat info {};
    if (::stat(path, &info) != 0) {
        return errno;
    }
    device = info.st_dev;
    inode = info.st_ino;
    return 0;
}

int ProcFsReader::OpenFile(int pid, const char* file) const {
    char path[PATH_MAX];
    if (!MakePath(path, sizeof path, pid, file)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return ::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
}

}  // namespace Engine
