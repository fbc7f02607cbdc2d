#pragma once

#include <Poco/Net/HTTPServer.h>

#include <memory>
#include <string>
#include <vector>

namespace TestSupport {

// A small HTTP(S) server on 127.0.0.1 serving bodies from memory. Unknown paths get 404;
// every request is counted by its path. POSTs are answered 200 and their bodies and
// Authorization headers kept, unless Fail or Refuse says otherwise. Creating one clears
// the proxy variables of the environment so that requests go straight to it.
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
    void Redirect(const std::string& path, const std::string& target);  // 302 to a path of this server
    // The next `count` requests to `path` are answered `status`.
    void Fail(const std::string& path, int status, int count);
    // Every POST to `path` whose body holds `needle` is answered `status`, as a strict collector refuses.
    void Refuse(const std::string& path, int status, const std::string& needle);

    std::string Url(const std::string& path) const;
    int Requests(const std::string& path) const;
    std::vector<std::string> Posted(const std::string& path) const;  // bodies, in order
    std::string LastAuthorization(const std::string& path) const;

    // A port nothing listens on now, for a server started later.
    static unsigned short FreePort();

    struct State;

private:
    template <class F>
    auto With(const std::string& path, F change) const;  // `change` of the route under the lock

    std::shared_ptr<State> state_;
    std::unique_ptr<Poco::Net::HTTPServer> server_;
    std::string base_;
};

}  // namespace TestSupport
