#pragma once

#include <Poco/Net/HTTPServer.h>

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace TestSupport {

// A small HTTP server on 127.0.0.1 (ephemeral port) serving bodies from memory.
// Unknown paths get 404; every request is counted by its path. Creating one
// clears the proxy variables of the environment so that requests to it are
// sent straight to it.
class HttpTestServer {
public:
    HttpTestServer();
    ~HttpTestServer();

    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    // `chunked`: sent without a length, so the client learns the size only while reading.
    void Serve(const std::string& path, const std::string& body, bool chunked = false);
    // Answers `path` with 302 to `target` (a path of this server).
    void Redirect(const std::string& path, const std::string& target);

    std::string Url(const std::string& path) const;
    int Requests(const std::string& path) const;

    struct State {
        mutable std::mutex mutex;
        std::map<std::string, std::string> bodies;
        std::map<std::string, std::string> redirects;
        std::map<std::string, int> requests;
        std::set<std::string> chunked;
    };

private:
    std::shared_ptr<State> state_;
    std::unique_ptr<Poco::Net::HTTPServer> server_;
    unsigned short port_ = 0;
};

}  // namespace TestSupport
