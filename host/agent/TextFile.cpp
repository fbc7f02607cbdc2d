#include "TextFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Agent {

namespace {

class FdCloser {
public:
    explicit FdCloser(int fd) : fd_(fd) {}
    ~FdCloser() { ::close(fd_); }
    FdCloser(const FdCloser&) = delete;
    FdCloser& operator=(const FdCloser&) = delete;

private:
    int fd_;
};

// Why a file that is not a regular one is refused, naming what it is.
std::string NotRegular(mode_t mode) {
    const char* what = S_ISDIR(mode)    ? "a directory"
                       : S_ISFIFO(mode) ? "a FIFO"
                       : S_ISSOCK(mode) ? "a socket"
                       : S_ISCHR(mode)  ? "a character device"
                       : S_ISBLK(mode)  ? "a block device"
                                        : "of an unknown type";
    return std::string("not a regular file but ") + what;
}

}  // namespace

bool TextFile::Read(const std::string& path, size_t limit, std::string& text, std::string& error) {
    // A device is not even opened (opening some has effects); the file found open is checked
    // again below, since the path may have changed in between.
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        error = NotRegular(info.st_mode);
        return false;
    }
    // Non-blocking, so that a FIFO put in the file's place cannot hold the caller (the main
    // thread, which also takes SIGTERM) in open() or read().
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        error = std::strerror(errno);
        return false;
    }
    FdCloser closer(fd);
    if (::fstat(fd, &info) != 0) {
        error = std::strerror(errno);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        error = NotRegular(info.st_mode);
        return false;
    }
    // A file that says it is over the cap is refused unread; the loop below still stops at
    // the cap for files that grow while being read.
    if (static_cast<unsigned long long>(info.st_size) > limit) {
        error = "larger than " + std::to_string(limit) + " bytes";
        return false;
    }
    text.clear();
    char buffer[16384];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof(buffer));
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = std::strerror(errno);
            return false;
        }
        if (got == 0) {
            return true;
        }
        if (text.size() + static_cast<size_t>(got) > limit) {
            error = "larger than " + std::to_string(limit) + " bytes";
            return false;
        }
        text.append(buffer, static_cast<size_t>(got));
    }
}

}  // namespace Agent
