#include "sdk/FileUtils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <mutex>
#include <new>

#include "sdk/CryptoLibrary.h"
#include "sdk/HostLog.h"

namespace SDK {

namespace {

enum ReadResult { kReadOk = 0, kReadUnavailable = 1, kReadTooLarge = 2, kReadFailed = 3 };

constexpr size_t kChunkSize = 64 * 1024;

struct FdCloser {
    int fd;
    ~FdCloser() {
        if (fd >= 0) {
            close(fd);
        }
    }
};

// Feeds a regular file to `consume` in chunks, refusing it once it exceeds
// `limit` bytes (limit <= 0: no limit). /proc files report size 0, so the limit
// is checked against what is actually read as well as against the size.
int ReadChunks(const std::string& path, long limit, const std::function<bool(const char*, size_t)>& consume) {
    // O_NONBLOCK keeps open() from hanging on a FIFO, which is then refused below.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        return kReadUnavailable;
    }
    FdCloser closer{fd};
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        return kReadUnavailable;
    }
    if (limit > 0 && st.st_size > limit) {
        return kReadTooLarge;
    }
    std::unique_ptr<char[]> buffer(new char[kChunkSize]);
    unsigned long long total = 0;
    for (;;) {
        const ssize_t got = read(fd, buffer.get(), kChunkSize);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return kReadFailed;
        }
        if (got == 0) {
            return kReadOk;
        }
        total += static_cast<unsigned long long>(got);
        if (limit > 0 && total > static_cast<unsigned long long>(limit)) {
            return kReadTooLarge;
        }
        if (!consume(buffer.get(), static_cast<size_t>(got))) {
            return kReadFailed;
        }
    }
}

}  // namespace

int FileUtils::GetFileSha256(const std::string& path, std::string& hex, long limit) {
    std::string loadError;
    const CryptoLibrary* crypto = CryptoLibrary::Get(loadError);
    if (crypto == nullptr) {
        static std::once_flag logged;
        std::call_once(logged, [&loadError] { HOST_LOG_ERROR("no SHA-256 digests: " + loadError); });
        return kReadFailed;
    }
    std::unique_ptr<EVP_MD_CTX, decltype(crypto->md_ctx_free)> ctx(crypto->md_ctx_new(), crypto->md_ctx_free);
    if (!ctx || crypto->digest_init(ctx.get(), crypto->sha256(), nullptr) != 1) {
        return kReadFailed;
    }
    const int result = ReadChunks(path, limit, [&ctx, crypto](const char* data, size_t size) {
        return crypto->digest_update(ctx.get(), data, size) == 1;
    });
    if (result != kReadOk) {
        return result;
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    if (crypto->digest_final(ctx.get(), digest, &digestLength) != 1) {
        return kReadFailed;
    }
    static const char kHexDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(digestLength * 2);
    for (unsigned int i = 0; i < digestLength; ++i) {
        text.push_back(kHexDigits[digest[i] >> 4]);
        text.push_back(kHexDigits[digest[i] & 0x0F]);
    }
    hex.swap(text);
    return kReadOk;
}

int FileUtils::ReadFile(const std::string& path, std::string& out, long limit) {
    std::string content;
    const int result = ReadChunks(path, limit, [&content](const char* data, size_t size) {
        try {
            content.append(data, size);
        } catch (const std::bad_alloc&) {
            return false;  // only reachable without a limit
        }
        return true;
    });
    if (result == kReadOk) {
        out.swap(content);
    }
    return result;
}

int FileUtils::ReadWholeFile(const std::string& path, std::string& out, size_t maxBytes) {
    out.clear();
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    FdCloser closer{fd};
    char chunk[65536];  // /proc/net/tcp on a busy host is megabytes: fewer reads
    for (;;) {
        const ssize_t got = read(fd, chunk, sizeof chunk);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        if (got == 0) {
            return 0;
        }
        if (out.size() + static_cast<size_t>(got) > maxBytes) {
            out.clear();
            return EFBIG;
        }
        out.append(chunk, static_cast<size_t>(got));
    }
}

}  // namespace SDK
