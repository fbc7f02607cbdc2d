#include "DeadLetterFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "sdk/PrivateFile.h"

namespace Agent {

DeadLetterFile::DeadLetterFile(std::string path, uint64_t maxBytes)
    : path_(std::move(path)), maxBytes_(maxBytes) {}

bool DeadLetterFile::Append(const std::string& line, std::string& error) {
    // Opened for each line: refusals are rare, and the operator may move the file away at any time.
    const int fd = SDK::PrivateFile::Open(path_, O_WRONLY | O_APPEND | O_CREAT, error);
    if (fd < 0) {
        return false;
    }
    struct stat info {};
    bool written = false;
    if (::fstat(fd, &info) != 0) {
        error = path_ + ": " + std::strerror(errno);
    } else if (static_cast<uint64_t>(info.st_size) + line.size() > maxBytes_) {
        error = path_ + " is full (" + std::to_string(maxBytes_) + " bytes); move it away to make room";
    } else {
        size_t offset = 0;
        errno = EIO;
        while (offset < line.size()) {
            const ssize_t result = ::write(fd, line.data() + offset, line.size() - offset);
            if (result < 0 && errno == EINTR) {
                continue;
            }
            if (result <= 0) {
                break;
            }
            offset += static_cast<size_t>(result);
        }
        written = offset == line.size() && ::fdatasync(fd) == 0;
        if (!written) {
            error = path_ + ": cannot write: " + std::strerror(errno);
            // A part of a line would garble the next one.
            if (::ftruncate(fd, info.st_size) != 0) {
                error += " (and a part of the line stays)";
            }
        }
    }
    ::close(fd);
    return written;
}

}  // namespace Agent
