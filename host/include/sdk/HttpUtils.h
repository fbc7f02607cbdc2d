#pragma once

#include <string>

namespace SDK {

// Downloads over libcurl: HTTP and HTTPS with certificate verification, redirects
// followed, the usual proxy variables honoured.
class HttpUtils {
public:
    static HttpUtils* GetInstance();

    // Fetches `url` into `targetPath`: written to a temporary file beside the target
    // and renamed into place only on status 200, so a failed download leaves an
    // earlier file untouched.
    //   proxy      a proxy URL; empty: from the environment (http_proxy, https_proxy, no_proxy)
    //   caFile     a CA bundle for HTTPS; empty: the system's
    //   userAgent  empty: "corvane-agent"
    // Returns the HTTP status, or a negative value for a transport error or time-out. A body
    // over the size cap is discarded: -CURLE_FILESIZE_EXCEEDED (-63).
    int Download(const std::string& url, const std::string& targetPath, const std::string& proxy,
                 const std::string& caFile, const std::string& userAgent);

    // Time-outs in seconds (defaults 10 and 120).
    void SetTimeouts(long connectSeconds, long totalSeconds);

private:
    HttpUtils() = default;
    long connectTimeout_ = 10;
    long totalTimeout_ = 120;
    // Largest body accepted: 10 MiB, the largest address file the agent reads back.
    unsigned long long maxBytes_ = 10ull * 1024 * 1024;
};

}  // namespace SDK
