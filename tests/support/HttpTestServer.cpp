#include "support/HttpTestServer.h"

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Net/SecureServerSocket.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/StreamCopier.h>
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
        std::string posted;
        if (request.getMethod() == Poco::Net::HTTPRequest::HTTP_POST) {
            Poco::StreamCopier::copyToString(request.stream(), posted);
        }
        {
            std::lock_guard<std::mutex> lock(state_->mutex);
            const std::string path = request.getURI();
            ++state_->requests[path];
            auto failure = state_->failures.find(path);
            const auto refusal = state_->refusals.find(path);
            int status = 0;
            if (failure != state_->failures.end() && failure->second.second > 0) {
                --failure->second.second;
                status = failure->second.first;
            } else if (refusal != state_->refusals.end() &&
                       posted.find(refusal->second.second) != std::string::npos) {
                status = refusal->second.first;
            }
            if (status != 0) {
                response.setStatusAndReason(static_cast<Poco::Net::HTTPResponse::HTTPStatus>(status));
                response.send() << "failing on purpose";
                return;
            }
            if (request.getMethod() == Poco::Net::HTTPRequest::HTTP_POST) {
                state_->posted[path].push_back(posted);
                state_->authorization[path] = request.get("Authorization", "");
                response.send() << "ok";
                return;
            }
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

HttpTestServer::HttpTestServer(unsigned short port, const std::string& certFile, const std::string& keyFile)
    : state_(std::make_shared<State>()), tls_(!certFile.empty()) {
    for (const char* name :
         {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
        unsetenv(name);
    }
    setenv("no_proxy", "127.0.0.1", 1);
    const Poco::Net::SocketAddress address("127.0.0.1", port);
    Poco::Net::ServerSocket socket;
    if (tls_) {
        Poco::Net::initializeSSL();
        Poco::Net::Context::Ptr context = new Poco::Net::Context(
            Poco::Net::Context::TLS_SERVER_USE, keyFile, certFile, "", Poco::Net::Context::VERIFY_NONE);
        socket = Poco::Net::SecureServerSocket(address, 64, context);
    } else {
        socket = Poco::Net::ServerSocket(address);
    }
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
    return std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_) + path;
}

void HttpTestServer::Fail(const std::string& path, int status, int count) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->failures[path] = {status, count};
}

void HttpTestServer::Refuse(const std::string& path, int status, const std::string& needle) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->refusals[path] = {status, needle};
}

std::vector<std::string> HttpTestServer::Posted(const std::string& path) const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    const auto found = state_->posted.find(path);
    return found == state_->posted.end() ? std::vector<std::string>() : found->second;
}

std::string HttpTestServer::LastAuthorization(const std::string& path) const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    const auto found = state_->authorization.find(path);
    return found == state_->authorization.end() ? std::string() : found->second;
}

unsigned short HttpTestServer::FreePort() {
    Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    return socket.address().port();
}

int HttpTestServer::Requests(const std::string& path) const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    const auto found = state_->requests.find(path);
    return found == state_->requests.end() ? 0 : found->second;
}

}  // namespace TestSupport
