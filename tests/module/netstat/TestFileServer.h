#pragma once

#include <Poco/Net/HTTPServer.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace NetstatTest {

// A small HTTP server on 127.0.0.1 (ephemeral port) serving files from memory.
// Unknown paths get 404. Every request is counted by its path.
class TestFileServer {
public:
    TestFileServer();
    ~TestFileServer();

    TestFileServer(const TestFileServer&) = delete;
    TestFileServer& operator=(const TestFileServer&) = delete;

    void Serve(const std::string& path, const std::string& body);
    // Answers `path` with 302 to `target` (a path of this server).
    void Redirect(const std::string& path, const std::string& target);

    std::string Url(const std::string& path) const;
    int Requests(const std::string& path) const;

    struct State {
        mutable std::mutex mutex;
        std::map<std::string, std::string> bodies;
        std::map<std::string, std::string> redirects;
        std::map<std::string, int> requests;
    };

private:
    std::shared_ptr<State> state_;
    std::unique_ptr<Poco::Net::HTTPServer> server_;
    unsigned short port_ = 0;
};

// Lowercase hex SHA-256 of a text.
std::string Sha256Hex(const std::string& data);

}  // namespace NetstatTest
