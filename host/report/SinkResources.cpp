#include "SinkResources.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "TlsLibrary.h"

namespace Agent {

namespace {

std::string Why(const std::string& path, const std::string& reason) {
    return path + ": " + reason;
}

// A regular file of at most `limit` bytes, judged by stat (following links, as OpenSSL does).
bool IsSmallRegularFile(const std::string& path, size_t limit, std::string& error) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        error = Why(path, std::strerror(errno));
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        error = Why(path, "not a regular file");
        return false;
    }
    if (static_cast<uint64_t>(info.st_size) > limit) {
        error = Why(path, "larger than " + std::to_string(limit) + " bytes");
        return false;
    }
    return true;
}

// The kernel's own file systems: files there are the kernel's interfaces, not storage.
const char* KernelFsName(const struct statfs& fs) {
    switch (static_cast<unsigned long>(fs.f_type)) {
        case PROC_SUPER_MAGIC:
            return "proc";
        case SYSFS_MAGIC:
            return "sysfs";
        case CGROUP_SUPER_MAGIC:
        case CGROUP2_SUPER_MAGIC:
            return "cgroup";
        case DEBUGFS_MAGIC:
            return "debugfs";
        case TRACEFS_MAGIC:
            return "tracefs";
        case SECURITYFS_MAGIC:
            return "securityfs";
        default:
            return nullptr;
    }
}

}  // namespace

bool SinkResources::ReadSecret(const std::string& path, std::string& text, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        error = Why(path, errno == ELOOP ? "is a symbolic link; not followed" : std::strerror(errno));
        return false;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        error = Why(path, "not a regular file");
        ::close(fd);
        return false;
    }
    text.assign(kMaxSecretBytes + 1, '\0');
    size_t got = 0;
    ssize_t result = 0;
    while (got < text.size() && (result = ::read(fd, &text[got], text.size() - got)) != 0) {
        if (result < 0 && errno != EINTR) {
            break;
        }
        got += result > 0 ? static_cast<size_t>(result) : 0;
    }
    const int failure = result < 0 ? errno : 0;
    ::close(fd);
    if (failure != 0 || got > kMaxSecretBytes) {
        error = Why(path, failure != 0 ? std::strerror(failure)
                                       : "larger than " + std::to_string(kMaxSecretBytes) + " bytes");
        return false;
    }
    text.resize(got);
    return true;
}

bool SinkResources::CheckCaBundle(const std::string& path, std::string& error) {
    if (!IsSmallRegularFile(path, kMaxCaBundleBytes, error)) {
        return false;
    }
    const TlsLibrary* tls = TlsLibrary::Get(error);
    if (tls == nullptr) {
        error = "cannot check " + path + ": " + error;
        return false;
    }
    SSL_CTX* context = tls->ctx_new(tls->client_method());
    if (context == nullptr) {
        error = "cannot check " + path + ": " + tls->crypto->TakeError();
        return false;
    }
    tls->crypto->err_clear_error();
    const bool loaded = tls->ctx_load_verify_locations(context, path.c_str(), nullptr) == 1;
    if (!loaded) {
        error = Why(path, "no CA certificate OpenSSL can read (" + tls->crypto->TakeError() + ")");
    }
    tls->ctx_free(context);
    return loaded;
}

bool SinkResources::CheckSocket(const std::string& path, std::string& error) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        error = Why(path, std::strerror(errno));
        return false;
    }
    if (!S_ISSOCK(info.st_mode)) {
        error = Why(path, "not a socket");
        return false;
    }
    return true;
}

std::string SinkResources::DirectoryOf(const std::string& path) {
    // A trailing '/' names the same directory.
    const size_t slash = path.find_last_of('/', path.size() > 1 ? path.size() - 2 : 0);
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool SinkResources::CheckWritableDirectory(const std::string& dir, bool mayCreate, std::string& error,
                                           bool& onKernelFs) {
    onKernelFs = false;
    std::string existing = dir;
    struct stat info {};
    while (::stat(existing.c_str(), &info) != 0) {
        if (errno != ENOENT || !mayCreate || existing == "/" || existing == ".") {
            error = Why(existing, std::strerror(errno));
            return false;
        }
        existing = DirectoryOf(existing);
    }
    if (!S_ISDIR(info.st_mode)) {
        error = Why(existing, "not a directory");
        return false;
    }
    struct statfs fs {};
    if (::statfs(existing.c_str(), &fs) == 0 && KernelFsName(fs) != nullptr) {
        error = Why(existing, std::string("on the kernel's ") + KernelFsName(fs) + " file system");
        onKernelFs = true;
        return false;
    }
    // access(2) also says EROFS on a read-only mount (ProtectSystem=, a read-only /usr).
    if (::access(existing.c_str(), W_OK | X_OK) != 0) {
        error = Why(existing, std::string("cannot write there: ") + std::strerror(errno));
        return false;
    }
    return true;
}

}  // namespace Agent
