#include "SpoolFileIo.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "sdk/PrivateFile.h"

namespace Agent {

namespace SpoolFileIo {

std::string ErrnoText(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

bool ParseOffset(const std::string& text, uint64_t& out) {
    if (text.empty() || text.size() > kOffsetDigits) {
        return false;
    }
    uint64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        const uint64_t digit = static_cast<uint64_t>(c - '0');
        if (value > (UINT64_MAX - digit) / 10) {
            return false;
        }
        value = value * 10 + digit;
    }
    out = value;
    return true;
}

bool WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            if (written == 0) {
                errno = EIO;
            }
            return false;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

ssize_t ReadAt(int fd, char* buffer, size_t size, uint64_t offset) {
    size_t got = 0;
    while (got < size) {
        const ssize_t n = ::pread(fd, buffer + got, size - got, static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return -1;
        }
        if (n == 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

bool ReadSmallFile(const std::string& path, size_t limit, std::string& text) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        return false;
    }
    text.assign(limit, '\0');
    const ssize_t got = ReadAt(fd, text.data(), text.size(), 0);
    ::close(fd);
    text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return got >= 0;
}

bool ReplaceFile(const std::string& path, const std::string& text, std::string& error) {
    const std::string temp = path + ".tmp";
    const int fd = SDK::PrivateFile::Open(temp, O_WRONLY | O_CREAT | O_TRUNC, error);
    if (fd < 0) {
        return false;
    }
    const bool written = WriteAll(fd, text.data(), text.size());
    ::close(fd);
    if (!written || ::rename(temp.c_str(), path.c_str()) != 0) {
        error = ErrnoText("cannot save " + path);
        return false;
    }
    return true;
}

uint64_t NextLineStart(int fd, uint64_t from, uint64_t end) {
    char buffer[65536];
    while (from < end) {
        const size_t want = static_cast<size_t>(std::min<uint64_t>(sizeof(buffer), end - from));
        const ssize_t got = ReadAt(fd, buffer, want, from);
        if (got <= 0) {
            return end;
        }
        if (const void* newline = std::memchr(buffer, '\n', static_cast<size_t>(got))) {
            return from + static_cast<uint64_t>(static_cast<const char*>(newline) - buffer) + 1;
        }
        from += static_cast<uint64_t>(got);
    }
    return end;
}

}  // namespace SpoolFileIo

}  // namespace Agent
