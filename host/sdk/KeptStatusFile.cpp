#include "KeptStatusFile.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>

namespace SDK {

namespace {

struct KeptFile {
    std::string path;
    int fd = -1;

    ~KeptFile() { Forget(); }
    void Forget() {
        if (fd >= 0) {
            close(fd);
        }
        fd = -1;
        path.clear();
    }
};

thread_local KeptFile kept;

ssize_t ReadFromStart(int fd, char* buffer, size_t capacity) {
    size_t size = 0;
    while (size < capacity) {
        const ssize_t got = pread(fd, buffer + size, capacity - size, static_cast<off_t>(size));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return -1;
        }
        if (got == 0) {
            break;
        }
        size += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(size);
}

bool OnProcfs(int fd) {
    struct statfs info {};
    return fstatfs(fd, &info) == 0 && info.f_type == PROC_SUPER_MAGIC;
}

}  // namespace

ssize_t KeptStatusFile::Read(const std::string& path, char* buffer, size_t capacity) {
    if (kept.fd >= 0 && kept.path == path) {
        const ssize_t size = ReadFromStart(kept.fd, buffer, capacity);
        if (size > 0) {
            return size;
        }
    }
    kept.Forget();  // another process, or the kept one is gone
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return -1;
    }
    const ssize_t size = ReadFromStart(fd, buffer, capacity);
    if (size > 0 && OnProcfs(fd)) {
        kept.fd = fd;
        kept.path = path;
    } else {
        close(fd);
    }
    return size;
}

}  // namespace SDK
