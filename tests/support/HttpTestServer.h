#pragma once

#include <Poco/Net/HTTPServer.h>

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport {

// A small HTTP server on 127.0.0.1 (ephemeral port) serving bodies from memory.
// Unknown paths get 404; every request is counted by its path. POSTs are
// answered 200 and their bodies and Authorization headers kept, unless Fail
// asked for failures first. Creating one clears the proxy variables of the
// environment so that requests to it are sent straight to it.
class HttpTestServer {
public:
    // port 0: an ephemeral one. certFile/keyFile set: HTTPS with that certificate.
    explicit HttpTestServer(unsigned short port = 0, const std::string& certFile = "",
                            const std::string& keyFile = "");
    ~HttpTestServer();

    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    // `chunked`: sent without a length, so the client learns the size only while reading.
    void Serve(const std::string& path, const std::string& body, bool chunked = false);
    // Answers `path` with 302 to `target` (a path of this server).
    void Redirect(const std::string& path, const std::string& target);

    // The next `count` requests to `path` are answered `status`.
    void Fail(const std::string& path, int status, int count);
    // Every POST to `path` whose body holds `needle` is answered `status`, as a strict collector refuses
    // content.
    void Refuse(const std::string& path, int status, const std::string& needle);

    std::string Url(const std::string& path) const;
    int Requests(const std::string& path) const;
    std::vector<std::string> Posted(const std::string& path) const;  // bodies, in order
    std::string LastAuthorization(const std::string& path) const;

    // A port nothing listens on now, for a server started later.
    static unsigned short FreePort();

    struct State {
        mutable std::mutex mutex;
        std::map<std::string, std::string> bodies;
        std::map<std::string, std::string> redirects;
        std::map<std::string, int> requests;
        std::set<std::string> chunked;
        std::map<std::string, std::pair<int, int>> failures;          // status, count left
        std::map<std::string, std::pair<int, std::string>> refusals;  // status, needle
        std::map<std::string, std::vector<std::string>> posted;
        std::map<std::string, std::string> authorization;
    };

private:
    std::shared_ptr<State> state_;
    std::unique_ptr<Poco::Net::HTTPServer> server_;
    unsigned short port_ = 0;
    bool tls_ = false;
};

}  // namespace TestSupport
