#include "sdk/HttpUtils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "sdk/CurlLibrary.h"
#include "sdk/HostLog.h"

namespace SDK {

namespace {

// Local failures (no target directory, no temporary file) give kLocalError; transport failures
// are returned as the negated CURLcode.
constexpr int kLocalError = -1000;
constexpr long kMaxRedirects = 5;

struct TempFile {
    std::string path;
    int fd = -1;
    bool keep = false;
    ~TempFile() {
        if (fd >= 0) {
            close(fd);
        }
        if (!keep && !path.empty()) {
            unlink(path.c_str());
        }
    }
};

std::string DirectoryOf(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Where the body goes, and how much of it may come: the server controls the length.
struct BodySink {
    int fd = -1;
    unsigned long long maxBytes = 0;
    unsigned long long received = 0;
    bool overCap = false;
};

size_t WriteToFd(char* data, size_t size, size_t count, void* userData) {
    BodySink& sink = *static_cast<BodySink*>(userData);
    const size_t total = size * count;
    if (sink.received + total > sink.maxBytes) {
        sink.overCap = true;
        return 0;  // curl then fails the transfer with CURLE_WRITE_ERROR
    }
    sink.received += total;
    size_t done = 0;
    while (done < total) {
        const ssize_t written = write(sink.fd, data + done, total - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return 0;
        }
        done += static_cast<size_t>(written);
    }
    return total;
}

}  // namespace

HttpUtils* HttpUtils::GetInstance() {
    static HttpUtils instance;
    return &instance;
}

void HttpUtils::SetTimeouts(long connectSeconds, long totalSeconds) {
    if (connectSeconds > 0) {
        connectTimeout_ = connectSeconds;
    }
    if (totalSeconds > 0) {
        totalTimeout_ = totalSeconds;
    }
}

int HttpUtils::Download(const std::string& url, const std::string& targetPath, const std::string& proxy,
                        const std::string& caFile, const std::string& userAgent) {
    std::string loadError;
    const CurlLibrary* curlLib = CurlLibrary::Get(loadError);
    if (curlLib == nullptr) {
        HOST_LOG_WARNING("download of " + url + ": " + loadError);
        return kLocalError;
    }

    const std::string directory = DirectoryOf(targetPath);
    struct stat st {};
    if (url.empty() || targetPath.empty() || targetPath.back() == '/' || stat(directory.c_str(), &st) != 0 ||
        !S_ISDIR(st.st_mode)) {
        HOST_LOG_WARNING("download of " + url + ": no target directory for \"" + targetPath + "\"");
        return kLocalError;
    }
    // Beside the target, so that the final rename stays within one file system.
    TempFile temp;
    std::vector<char> name(targetPath.begin(), targetPath.end());
    const std::string suffix = ".XXXXXX";
    name.insert(name.end(), suffix.begin(), suffix.end());
    name.push_back('\0');
    temp.fd = mkostemp(name.data(), O_CLOEXEC);
    if (temp.fd < 0) {
        HOST_LOG_WARNING("download of " + url + ": cannot create a file in " + directory + ": " +
                         strerror(errno));
        return kLocalError;
    }
    temp.path = name.data();

    std::unique_ptr<CURL, void (*)(CURL*)> curl(curlLib->easy_init(), curlLib->easy_cleanup);
    if (!curl) {
        HOST_LOG_WARNING("download of " + url + ": no libcurl handle");
        return -static_cast<int>(CURLE_FAILED_INIT);
    }
    CURL* h = curl.get();
    char errorText[CURL_ERROR_SIZE] = "";
    curlLib->easy_setopt(h, CURLOPT_ERRORBUFFER, errorText);
    curlLib->easy_setopt(h, CURLOPT_URL, url.c_str());
    curlLib->easy_setopt(h, CURLOPT_WRITEFUNCTION, &WriteToFd);
    BodySink sink;
    sink.fd = temp.fd;
    sink.maxBytes = maxBytes_;
    curlLib->easy_setopt(h, CURLOPT_WRITEDATA, &sink);
    // An announced length over the cap ends the transfer before the body; the write callback
    // bounds the rest (chunked answers, lying lengths).
    curlLib->easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(maxBytes_));
    curlLib->easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
    curlLib->easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curlLib->easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
    curlLib->easy_setopt(h, CURLOPT_MAXREDIRS, kMaxRedirects);
    curlLib->easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
    curlLib->easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
    curlLib->easy_setopt(h, CURLOPT_CONNECTTIMEOUT, connectTimeout_);
    curlLib->easy_setopt(h, CURLOPT_TIMEOUT, totalTimeout_);
    curlLib->easy_setopt(h, CURLOPT_NOSIGNAL, 1L);  // signals and task threads do not mix
    curlLib->easy_setopt(h, CURLOPT_USERAGENT, userAgent.empty() ? "corvane-agent" : userAgent.c_str());
    if (!caFile.empty()) {
        curlLib->easy_setopt(h, CURLOPT_CAINFO, caFile.c_str());
    }
    if (!proxy.empty()) {
        // Set explicitly, it wins over all proxy variables of the environment, no_proxy included.
        curlLib->easy_setopt(h, CURLOPT_PROXY, proxy.c_str());
        curlLib->easy_setopt(h, CURLOPT_NOPROXY, "");
    }

    const CURLcode result = curlLib->easy_perform(h);
    if (sink.overCap || result == CURLE_FILESIZE_EXCEEDED) {
        HOST_LOG_WARNING("download of " + url + ": answer larger than " + std::to_string(maxBytes_) +
                         " bytes, discarded; " + targetPath + " left as it was");
        return -static_cast<int>(CURLE_FILESIZE_EXCEEDED);
    }
    if (result != CURLE_OK) {
        HOST_LOG_WARNING("download of " + url +
                         " failed: " + (errorText[0] != '\0' ? errorText : curlLib->easy_strerror(result)));
        return -static_cast<int>(result);
    }
    long status = 0;
    curlLib->easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
    if (status != 200) {
        HOST_LOG_WARNING("download of " + url + ": HTTP status " + std::to_string(status) + ", " +
                         targetPath + " left as it was");
        return static_cast<int>(status);
    }
    // Private like every file the agent writes: which addresses it watches is no one else's business.
    bool finished = fchmod(temp.fd, 0600) == 0 && fsync(temp.fd) == 0;
    finished = close(temp.fd) == 0 && finished;
    temp.fd = -1;
    if (!finished) {
        HOST_LOG_WARNING("download of " + url + ": cannot finish " + temp.path + ": " + strerror(errno));
        return kLocalError;
    }
    if (rename(temp.path.c_str(), targetPath.c_str()) != 0) {
        HOST_LOG_WARNING("download of " + url + ": cannot rename to " + targetPath + ": " + strerror(errno));
        return kLocalError;
    }
    temp.keep = true;
    return static_cast<int>(status);
}

}  // namespace SDK
