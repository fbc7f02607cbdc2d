#include "RelpSink.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "SyslogSink.h"

namespace Agent {

namespace {

constexpr unsigned kTimeoutSeconds = 10;
constexpr int kWindow = 128;                 // messages sent ahead of their answers
constexpr size_t kDefaultMaxMessage = 8096;  // imrelp takes rsyslog's maxMessageSize by default

}  // namespace

RelpSink::RelpSink(const SinkSettings& settings, std::string hostName)
    : settings_(settings), hostName_(std::move(hostName)) {}

RelpSink::~RelpSink() {
    if (engine_ != nullptr) {
        relp_->engine_destruct(&engine_);
    }
}

std::string RelpSink::Describe() const {
    return "relp://" + settings_.host + ":" + std::to_string(settings_.port);
}

size_t RelpSink::MaxLineBytes() const {
    const size_t limit =
        settings_.maxMessageBytes > 0 ? static_cast<size_t>(settings_.maxMessageBytes) : kDefaultMaxMessage;
    const size_t header = SyslogSink::HeaderBytes(hostName_);
    return std::max(limit, header + 2048) - header;
}

void RelpSink::OnError(void* user, char* where, char* message, relpRetVal code) {
    auto* sink = static_cast<RelpSink*>(user);
    if (sink != nullptr && !sink->failed_) {
        sink->failed_ = true;
        sink->lastError_ = std::string(where != nullptr ? where : "") + ": " +
                           (message != nullptr ? message : "") + " (librelp " + std::to_string(code) + ")";
    }
}

size_t RelpSink::Deliver(const std::vector<std::string>& lines, std::string& error) {
    if (relp_ == nullptr && (relp_ = RelpLibrary::Get(error)) == nullptr) {
        return 0;
    }
    if (engine_ == nullptr) {
        if (relp_->engine_construct(&engine_) != RELP_RET_OK) {
            engine_ = nullptr;
            error = "cannot create a librelp engine";
            return 0;
        }
        relp_->engine_set_debug_print(engine_, nullptr);  // its quiet default: the engine starts with none
        relp_->engine_set_on_err(engine_, &RelpSink::OnError);
        relp_->engine_set_enable_cmd(
            engine_, const_cast<unsigned char*>(reinterpret_cast<const unsigned char*>("syslog")),
            eRelpCmdState_Required);
    }
    relpClt_t* client = nullptr;
    if (relp_->client_construct(engine_, &client) != RELP_RET_OK) {
        error = "cannot create a librelp client";
        return 0;
    }
    failed_ = false;
    lastError_.clear();
    relp_->client_set_timeout(client, kTimeoutSeconds);
    relp_->client_set_window_size(client, kWindow);
    relp_->client_set_user(client, this);
    std::string port = std::to_string(settings_.port);
    std::string host = settings_.host;
    const relpRetVal connected =
        relp_->client_connect(client, 0, reinterpret_cast<unsigned char*>(port.data()),
                              reinterpret_cast<unsigned char*>(host.data()));
    size_t sent = 0;
    relpRetVal result = connected;
    const int pid = static_cast<int>(::getpid());
    for (; connected == RELP_RET_OK && !failed_ && sent < lines.size(); ++sent) {
        std::string message = SyslogSink::Format(lines[sent], hostName_, pid);
        result = relp_->client_send_syslog(client, reinterpret_cast<unsigned char*>(message.data()),
                                           message.size());
        if (result != RELP_RET_OK || failed_) {
            break;
        }
    }
    // Closing waits for the relay's answer to the close, which comes after its
    // answers to every message: an error in any of them is reported before.
    relp_->client_destruct(engine_, &client);
    if (sent == lines.size() && !failed_) {
        return sent;
    }
    error = !lastError_.empty()        ? lastError_
            : connected != RELP_RET_OK ? "cannot connect (librelp " + std::to_string(connected) + ")"
                                       : "cannot send (librelp " + std::to_string(result) + ")";
    return sent > static_cast<size_t>(kWindow) ? sent - static_cast<size_t>(kWindow) : 0;
}

}  // namespace Agent
