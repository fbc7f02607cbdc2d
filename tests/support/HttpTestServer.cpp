#include "support/HttpTestServer.h"

#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <stdlib.h>

namespace TestSupport {

namespace {

class BodyHandler : public Poco::Net::HTTPRequestHandler {
public:
    explicit BodyHandler(std::shared_ptr<HttpTestServer::State> state) : state_(std::move(state)) {}

    void handleRequest(Poco::Net::HTTPServerRequest& request,
                       Poco::Net::HTTPServerResponse& response) override {
        std::string body;
        std::string location;
        bool found = false;
        bool chunked = false;
        {
            std::lock_guard<std::mutex> lock(state_->mutex);
            const std::string path = request.getURI();
            ++state_->requests[path];
            const auto redirect = state_->redirects.find(path);
            const auto file = state_->bodies.find(path);
            if (redirect != state_->redirects.end()) {
                location = redirect->second;
            } else if (file != state_->bodies.end()) {
                body = file->second;
                found = true;
                chunked = state_->chunked.count(path) != 0;
            }
        }
        if (!location.empty()) {
            response.redirect(location, Poco::Net::HTTPResponse::HTTP_FOUND);
        } else if (!found) {
            response.setStatusAndReason(Poco::Net::HTTPResponse::HTTP_NOT_FOUND);
            response.send() << "not found";
        } else {
            response.setContentType("application/octet-stream");
            if (chunked) {
                response.setChunkedTransferEncoding(true);
            } else {
                response.setContentLength(static_cast<std::streamsize>(body.size()));
            }
            response.send() << body;
        }
    }

private:
    std::shared_ptr<HttpTestServer::State> state_;
};

class BodyHandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    explicit BodyHandlerFactory(std::shared_ptr<HttpTestServer::State> state) : state_(std::move(state)) {}

    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override {
        return new BodyHandler(state_);
    }

private:
    std::shared_ptr<HttpTestServer::State> state_;
};

}  // namespace

HttpTestServer::HttpTestServer() : state_(std::make_shared<State>()) {
    for (const char* name :
         {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
        unsetenv(name);
    }
    setenv("no_proxy", "127.0.0.1", 1);
    Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    port_ = socket.address().port();
    server_ = std::make_unique<Poco::Net::HTTPServer>(new BodyHandlerFactory(state_), socket,
                                                      new Poco::Net::HTTPServerParams);
    server_->start();
}

HttpTestServer::~HttpTestServer() {
    server_->stopAll(true);
}

void HttpTestServer::Serve(const std::string& path, const std::string& body, bool chunked) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->bodies[path] = body;
    if (chunked) {
        state_->chunked.insert(path);
    }
}

void HttpTestServer::Redirect(const std::string& path, const std::string& target) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->redirects[path] = Url(target);
}

std::string HttpTestServer::Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

int HttpTestServer::Requests(const std::string& path) const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    const auto found = state_->requests.find(path);
    return found == state_->requests.end() ? 0 : found->second;
}

}  // namespace TestSupport
