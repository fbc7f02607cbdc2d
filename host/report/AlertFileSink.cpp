#include "AlertFileSink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "sdk/HostLog.h"

namespace Agent {

AlertFileSink::AlertFileSink(std::string path, uint64_t rotateBytes, int keepFiles)
    : path_(std::move(path)), rotateBytes_(rotateBytes), keepFiles_(keepFiles < 0 ? 0 : keepFiles) {}

AlertFileSink::~AlertFileSink() {
    Close();
}

int AlertFileSink::WriteLine(const std::string& line, size_t& offset) {
    if (fd_ < 0) {
        const int error = Open();
        if (error != 0) {
            return error;
        }
    }
    // Rotation only between lines: a line is never split across two files.
    if (offset == 0) {
        RotateIfFull(line.size());
        if (fd_ < 0) {
            const int error = Open();
            if (error != 0) {
                return error;
            }
        }
    }
    const size_t before = offset;
    const int error = WriteToFd(fd_, line, offset);
    size_ += offset - before;
    if (error != 0) {
        // Reopen on the next attempt: the file may have been removed or its
        // file system remounted while we held it.
        Close();
    }
    return error;
}

int AlertFileSink::Open() {
    const int fd = ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        return errno;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        const int error = errno;
        ::close(fd);
        return error;
    }
    fd_ = fd;
    regular_ = S_ISREG(info.st_mode);
    size_ = regular_ ? static_cast<uint64_t>(info.st_size) : 0;
    return 0;
}

void AlertFileSink::Close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

void AlertFileSink::RotateIfFull(size_t lineSize) {
    // Only regular files rotate: renaming a device or a FIFO would be wrong.
    if (rotateBytes_ == 0 || !regular_ || size_ == 0 || size_ + lineSize <= rotateBytes_) {
        return;
    }
    Close();
    if (Rotate()) {
        rotateFailed_ = false;
        return;
    }
    // Keep appending to the full file rather than lose alerts; say so once.
    if (!rotateFailed_) {
        HOST_LOG_ERROR("cannot rotate alert file " + path_ + ": " + std::strerror(errno) +
                       "; appending to it beyond its size limit");
        rotateFailed_ = true;
    }
}

bool AlertFileSink::Rotate() {
    if (keepFiles_ == 0) {
        return ::unlink(path_.c_str()) == 0 || errno == ENOENT;
    }
    for (int index = keepFiles_ - 1; index >= 1; --index) {
        const std::string from = path_ + "." + std::to_string(index);
        const std::string to = path_ + "." + std::to_string(index + 1);
        if (::rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) {
            return false;
        }
    }
    return ::rename(path_.c_str(), (path_ + ".1").c_str()) == 0;
}

}  // namespace Agent
