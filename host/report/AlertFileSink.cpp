#include "AlertFileSink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "SinkResources.h"
#include "sdk/HostLog.h"
#include "sdk/PrivateFile.h"

namespace Agent {

namespace {

constexpr size_t kChunkBytes = 256 * 1024;  // one write(2) per chunk of lines

// The sink makes a missing directory (0700) at its first write, one level deep, as rsyslog's
// omfile does.
bool IsMissing(const std::string& dir) {
    return ::access(dir.c_str(), F_OK) != 0 && errno == ENOENT;
}

}  // namespace

AlertFileSink::AlertFileSink(std::string path, uint64_t rotateBytes, int keepFiles)
    : path_(std::move(path)), rotateBytes_(rotateBytes), keepFiles_(keepFiles < 0 ? 0 : keepFiles) {}

std::vector<SinkProblem> AlertFileSink::Check(const std::string& path) {
    std::string error;
    bool onKernelFs = false;
    const std::string dir = SinkResources::DirectoryOf(path);
    const bool missing = IsMissing(dir);
    if (!SinkResources::CheckWritableDirectory(missing ? SinkResources::DirectoryOf(dir) : dir, false, error,
                                               onKernelFs)) {
        return {{"path", error, onKernelFs}};
    }
    if (missing) {
        return {};
    }
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0 && (S_ISLNK(info.st_mode) || S_ISDIR(info.st_mode))) {
        return {{"path", path + (S_ISDIR(info.st_mode) ? ": is a directory"
                                                       : ": is a symbolic link; the agent does not write "
                                                         "through one")}};
    }
    if (!SDK::PrivateFile::CheckParent(path, error)) {
        return {{"path", error}};
    }
    return {};
}

AlertFileSink::~AlertFileSink() {
    Close();
}

size_t AlertFileSink::Deliver(const std::vector<std::string>& lines, std::string& error) {
    if (fd_ >= 0 && (reopen_.exchange(false) || WasMoved())) {
        Close();
    }
    size_t done = 0;
    std::string chunk;
    while (done < lines.size()) {
        if (fd_ < 0 && !Open(error)) {
            return done;
        }
        // Rotation only between lines: a line is never split across two files.
        if (partial_ == 0) {
            RotateIfFull(lines[done].size());
            if (fd_ < 0 && !Open(error)) {
                return done;
            }
        }
        // As many whole lines as fit the chunk and the file's size limit (at least one).
        size_t end = done;
        uint64_t bytes = 0;
        chunk.clear();
        while (end < lines.size()) {
            const size_t size = lines[end].size() - (end == done ? partial_ : 0);
            if (end > done && (chunk.size() + size > kChunkBytes ||
                               (rotateBytes_ != 0 && regular_ && size_ + bytes + size > rotateBytes_))) {
                break;
            }
            chunk.append(lines[end], end == done ? partial_ : 0, std::string::npos);
            bytes += size;
            ++end;
        }
        size_t written = 0;
        const int failure = WriteToFd(fd_, chunk, written);
        size_ += written;
        // Count the whole lines that got out; the rest of a cut one waits in partial_.
        for (size_t at = 0; done < end;) {
            const size_t rest = lines[done].size() - partial_;
            if (written - at < rest) {
                partial_ += written - at;
                break;
            }
            at += rest;
            partial_ = 0;
            ++done;
        }
        if (failure != 0) {
            error = std::strerror(failure);
            // Reopen on the next attempt: the file may have been removed or its
            // file system remounted while we held it.
            Close();
            break;
        }
    }
    return done;
}

bool AlertFileSink::Sync(std::string& error) {
    if (fd_ < 0 || !regular_ || ::fdatasync(fd_) == 0) {
        return true;
    }
    error = std::string("cannot sync: ") + std::strerror(errno);
    Close();
    return false;
}

bool AlertFileSink::Open(std::string& error) {
    int fd = SDK::PrivateFile::Open(path_, O_WRONLY | O_APPEND | O_CREAT, error);
    if (fd < 0 && IsMissing(SinkResources::DirectoryOf(path_))) {
        const int made = SDK::PrivateFile::OpenDirectory(SinkResources::DirectoryOf(path_), error);
        if (made < 0) {
            return false;
        }
        ::close(made);
        fd = SDK::PrivateFile::Open(path_, O_WRONLY | O_APPEND | O_CREAT, error);
    }
    if (fd < 0) {
        return false;
    }
    struct stat info {};
    ::fstat(fd, &info);
    fd_ = fd;
    regular_ = S_ISREG(info.st_mode);
    size_ = regular_ ? static_cast<uint64_t>(info.st_size) : 0;
    return true;
}

void AlertFileSink::Close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

bool AlertFileSink::WasMoved() const {
    if (!regular_) {
        return false;
    }
    struct stat open {};
    struct stat named {};
    if (::fstat(fd_, &open) != 0 || open.st_nlink == 0) {
        return true;
    }
    return ::stat(path_.c_str(), &named) != 0 || named.st_ino != open.st_ino || named.st_dev != open.st_dev;
}

void AlertFileSink::RotateIfFull(size_t nextSize) {
    // Only regular files rotate: renaming a device or a FIFO would be wrong.
    if (rotateBytes_ == 0 || !regular_ || size_ == 0 || size_ + nextSize <= rotateBytes_) {
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
