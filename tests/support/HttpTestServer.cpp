#include "support/HttpTestServer.h"

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Net/SecureServerSocket.h>
#include <Poco/StreamCopier.h>
#include <stdlib.h>

#include <map>
#include <mutex>

namespace TestSupport {

struct HttpTestServer::State {
    struct Route {
        std::string body, redirect, needle, authorization;
        bool served = false, chunked = false;
        int requests = 0, failStatus = 0, failCount = 0, refuseStatus = 0;
        std::vector<std::string> posted;
    };
    std::mutex mutex;
    std::map<std::string, Route> routes;
};

namespace {

using Response = Poco::Net::HTTPResponse;

class Handler : public Poco::Net::HTTPRequestHandler, public Poco::Net::HTTPRequestHandlerFactory {
public:
    explicit Handler(std::shared_ptr<HttpTestServer::State> state) : state_(std::move(state)) {}

    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override {
        return new Handler(state_);
    }

    void handleRequest(Poco::Net::HTTPServerRequest& request,
                       Poco::Net::HTTPServerResponse& response) override {
        const bool post = request.getMethod() == Poco::Net::HTTPRequest::HTTP_POST;
        std::string posted;
        if (post) {
            Poco::StreamCopier::copyToString(request.stream(), posted);
        }
        std::lock_guard<std::mutex> lock(state_->mutex);
        auto& route = state_->routes[request.getURI()];
        ++route.requests;
        int status = 0;
        if (route.failCount > 0) {
            --route.failCount;
            status = route.failStatus;
        } else if (post && route.refuseStatus != 0 && posted.find(route.needle) != std::string::npos) {
            status = route.refuseStatus;
        } else if (!post && route.redirect.empty() && !route.served) {
            status = Response::HTTP_NOT_FOUND;
        }
        if (status != 0) {
            response.setStatusAndReason(static_cast<Response::HTTPStatus>(status));
            response.send() << "failing on purpose";
        } else if (post) {
            route.posted.push_back(posted);
            route.authorization = request.get("Authorization", "");
            response.send() << "ok";
        } else if (!route.redirect.empty()) {
            response.redirect(route.redirect, Response::HTTP_FOUND);
        } else {
            response.setContentType("application/octet-stream");
            response.setChunkedTransferEncoding(route.chunked);
            if (!route.chunked) {
                response.setContentLength(static_cast<std::streamsize>(route.body.size()));
            }
            response.send() << route.body;
        }
    }

private:
    std::shared_ptr<HttpTestServer::State> state_;
};

}  // namespace

HttpTestServer::HttpTestServer(unsigned short port, const std::string& certFile, const std::string& keyFile)
    : state_(std::make_shared<State>()) {
    for (const char* name :
         {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
        unsetenv(name);
    }
    setenv("no_proxy", "127.0.0.1", 1);
    const Poco::Net::SocketAddress address("127.0.0.1", port);
    Poco::Net::ServerSocket socket;
    if (certFile.empty()) {
        socket = Poco::Net::ServerSocket(address);
    } else {
        Poco::Net::initializeSSL();
        socket = Poco::Net::SecureServerSocket(
            address, 64,
            new Poco::Net::Context(Poco::Net::Context::TLS_SERVER_USE, keyFile, certFile, "",
                                   Poco::Net::Context::VERIFY_NONE));
    }
    base_ = std::string(certFile.empty() ? "http" : "https") +
            "://127.0.0.1:" + std::to_string(socket.address().port());
    server_ =
        std::make_unique<Poco::Net::HTTPServer>(new Handler(state_), socket, new Poco::Net::HTTPServerParams);
    server_->start();
}

HttpTestServer::~HttpTestServer() {
    server_->stopAll(true);
}

template <class F>
auto HttpTestServer::With(const std::string& path, F change) const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return change(state_->routes[path]);
}

void HttpTestServer::Serve(const std::string& path, const std::string& body, bool chunked) {
    With(path, [&](State::Route& route) { route.body = body, route.served = true, route.chunked = chunked; });
}

void HttpTestServer::Redirect(const std::string& path, const std::string& target) {
    With(path, [&](State::Route& route) { route.redirect = Url(target); });
}

void HttpTestServer::Fail(const std::string& path, int status, int count) {
    With(path, [&](State::Route& route) { route.failStatus = status, route.failCount = count; });
}

void HttpTestServer::Refuse(const std::string& path, int status, const std::string& needle) {
    With(path, [&](State::Route& route) { route.refuseStatus = status, route.needle = needle; });
}

std::string HttpTestServer::Url(const std::string& path) const {
    return base_ + path;
}

int HttpTestServer::Requests(const std::string& path) const {
    return With(path, [](State::Route& route) { return route.requests; });
}

std::vector<std::string> HttpTestServer::Posted(const std::string& path) const {
    return With(path, [](State::Route& route) { return route.posted; });
}

std::string HttpTestServer::LastAuthorization(const std::string& path) const {
    return With(path, [](State::Route& route) { return route.authorization; });
}

unsigned short HttpTestServer::FreePort() {
    return Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0)).address().port();
}

}  // namespace TestSupport
