#include "TestFileServer.h"

#include <Poco/DigestEngine.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/SHA2Engine.h>

namespace NetstatTest {

namespace {

class FileHandler : public Poco::Net::HTTPRequestHandler {
public:
    explicit FileHandler(std::shared_ptr<TestFileServer::State> state) : state_(std::move(state)) {}

    void handleRequest(Poco::Net::HTTPServerRequest& request,
                       Poco::Net::HTTPServerResponse& response) override {
        std::string body;
        std::string location;
        bool found = false;
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
            }
        }
        if (!location.empty()) {
            response.redirect(location, Poco::Net::HTTPResponse::HTTP_FOUND);
            return;
        }
        if (!found) {
            response.setStatusAndReason(Poco::Net::HTTPResponse::HTTP_NOT_FOUND);
            response.send() << "not found";
            return;
        }
        response.setContentType("application/octet-stream");
        response.setContentLength(static_cast<std::streamsize>(body.size()));
        response.send() << body;
    }

private:
    std::shared_ptr<TestFileServer::State> state_;
};

class FileHandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    explicit FileHandlerFactory(std::shared_ptr<TestFileServer::State> state) : state_(std::move(state)) {}

    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override {
        return new FileHandler(state_);
    }

private:
    std::shared_ptr<TestFileServer::State> state_;
};

}  // namespace

TestFileServer::TestFileServer() : state_(std::make_shared<State>()) {
    Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    port_ = socket.address().port();
    server_ = std::make_unique<Poco::Net::HTTPServer>(new FileHandlerFactory(state_), socket,
                                                      new Poco::Net::HTTPServerParams);
    server_->start();
}

TestFileServer::~TestFileServer() {
    server_->stopAll(true);
}

void TestFileServer::Serve(const std::string& path, const std::string& body) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->bodies[path] = body;
}

void TestFileServer::Redirect(const std::string& path, const std::string& target) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->redirects[path] = Url(target);
}

std::string TestFileServer::Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

int TestFileServer::Requests(const std::string& path) const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    const auto found = state_->requests.find(path);
    return found == state_->requests.end() ? 0 : found->second;
}

std::string Sha256Hex(const std::string& data) {
    Poco::SHA2Engine engine(Poco::SHA2Engine::SHA_256);
    engine.update(data);
    return Poco::DigestEngine::digestToHex(engine.digest());
}

}  // namespace NetstatTest
