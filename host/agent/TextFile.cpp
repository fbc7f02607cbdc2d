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

}  // namespace

bool TextFile::Read(const std::string& path, size_t limit, std::string& text, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        error = std::strerror(errno);
        return false;
    }
    FdCloser closer(fd);
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        error = std::strerror(errno);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        error = "not a regular file";
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
