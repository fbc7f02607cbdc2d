#include "SyslogSink.h"

#include <json/json.h>
#include <linux/sockios.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <utility>

#include "SinkResources.h"
#include "sdk/HostLog.h"
#include "sdk/JsonUtils.h"

namespace Agent {

namespace {

constexpr int kPriority = 4 * 8 + 4;  // facility auth, severity warning
constexpr long kIoTimeoutSeconds = 10;
constexpr size_t kDefaultMaxMessage = 8096;  // what rsyslog takes by default (its maxMessageSize)
constexpr size_t kMinDatagram = 2048;

// RFC 5424 header fields are printable US-ASCII without spaces, "-" when empty.
std::string HeaderField(const std::string& text, size_t max) {
    std::string field;
    for (const char c : text.substr(0, max)) {
        if (c > 32 && c < 127) {
            field.push_back(c);
        }
    }
    return field.empty() ? "-" : field;
}

std::string EventClass(const std::string& line) {
    Json::Value alert;
    std::string error;
    if (!SDK::JsonUtils::ParseBounded(line.data(), line.size(), alert, error) || !alert.isObject() ||
        !alert["event_classid"].isString()) {
        return "";
    }
    return alert["event_classid"].asString();
}

}  // namespace

SyslogSink::SyslogSink(const SinkSettings& settings, std::string hostName)
    : settings_(settings), hostName_(std::move(hostName)), datagramLimit_(1u << 20) {
    // A datagram socket refuses a message over its send buffer (less 32 bytes of
    // bookkeeping) with EMSGSIZE; ours will have the default size.
    const int probe = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int buffer = 0;
    socklen_t length = sizeof(buffer);
    if (probe >= 0 && ::getsockopt(probe, SOL_SOCKET, SO_SNDBUF, &buffer, &length) == 0 && buffer > 4096) {
        datagramLimit_ = static_cast<size_t>(buffer) - 32;
    }
    if (probe >= 0) {
        ::close(probe);
    }
}

std::vector<SinkProblem> SyslogSink::Check(const SinkSettings& settings) {
    std::string error;
    if (!settings.host.empty()) {
        if (settings.tls && !settings.caFile.empty() &&
            !SinkResources::CheckCaBundle(settings.caFile, error)) {
            return {{"ca_file", error}};
        }
        return {};
    }
    if (settings.socket.size() >= sizeof(sockaddr_un::sun_path)) {
        return {{"socket",
                 settings.socket + ": longer than a socket path may be (" +
                     std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes)",
                 true}};
    }
    if (!SinkResources::CheckSocket(settings.socket, error)) {
        return {{"socket", error}};
    }
    return {};
}

SyslogSink::~SyslogSink() {
    Disconnect();
}

size_t SyslogSink::HeaderBytes(const std::string& hostName) {
    // Priority, version, time stamp, host, app name, pid and msgid, with their spaces.
    return 100 + HeaderField(hostName, 255).size();
}

size_t SyslogSink::MaxLineBytes() const {
    size_t limit =
        settings_.maxMessageBytes > 0 ? static_cast<size_t>(settings_.maxMessageBytes) : kDefaultMaxMessage;
    if (settings_.host.empty()) {
        limit = std::min(limit, datagramLimit_);
    }
    const size_t header = HeaderBytes(hostName_);
    return std::max(limit, header + kMinDatagram) - header;
}

std::string SyslogSink::Describe() const {
    if (!settings_.host.empty()) {
        return std::string(settings_.tls ? "syslog+tls://" : "syslog://") + settings_.host + ":" +
               std::to_string(settings_.port);
    }
    return settings_.socket;
}

std::string SyslogSink::Format(const std::string& line, const std::string& hostName, int pid) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char stamp[64];
    const size_t length = std::strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(stamp + length, sizeof(stamp) - length, ".%06ldZ", now.tv_nsec / 1000);
    std::string body = line;
    while (!body.empty() && body.back() == '\n') {
        body.pop_back();
    }
    return "<" + std::to_string(kPriority) + ">1 " + stamp + " " + HeaderField(hostName, 255) +
           " corvane-agent " + std::to_string(pid) + " " + HeaderField(EventClass(body), 32) + " - " + body;
}

size_t SyslogSink::Deliver(const std::vector<std::string>& lines, std::string& error) {
    if (fd_ < 0 && !Connect(error)) {
        return 0;
    }
    return settings_.host.empty() ? SendDatagrams(lines, error) : SendFrames(lines, error);
}

bool SyslogSink::Connect(std::string& error) {
    if (settings_.host.empty()) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (settings_.socket.size() >= sizeof(address.sun_path)) {
            error = "socket path too long";
            return false;
        }
        std::memcpy(address.sun_path, settings_.socket.c_str(), settings_.socket.size() + 1);
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            error = std::string("cannot connect: ") + std::strerror(errno);
            Disconnect();
            return false;
        }
        return true;
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int lookup =
        ::getaddrinfo(settings_.host.c_str(), std::to_string(settings_.port).c_str(), &hints, &found);
    if (lookup != 0) {
        error = std::string("cannot resolve ") + settings_.host + ": " + gai_strerror(lookup);
        return false;
    }
    error = "no address";
    for (addrinfo* at = found; at != nullptr && fd_ < 0; at = at->ai_next) {
        fd_ = ::socket(at->ai_family, at->ai_socktype | SOCK_CLOEXEC, at->ai_protocol);
        if (fd_ < 0) {
            continue;
        }
        // Bounded waits: a relay that stops reading must not hold this thread for ever.
        const timeval timeout{kIoTimeoutSeconds, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        if (::connect(fd_, at->ai_addr, at->ai_addrlen) != 0) {
            error = std::string("cannot connect: ") + std::strerror(errno);
            ::close(fd_);
            fd_ = -1;
        }
    }
    ::freeaddrinfo(found);
    if (fd_ < 0) {
        return false;
    }
    if (settings_.tls && !StartTls(error)) {
        Disconnect();
        return false;
    }
    return true;
}

bool SyslogSink::StartTls(std::string& error) {
    if (tls_ == nullptr && (tls_ = TlsLibrary::Get(error)) == nullptr) {
        error = "TLS: " + error;
        return false;
    }
    // A context per connection: the CA file is read again each time, so a
    // corrected one is taken without a restart.
    {
        context_ = tls_->ctx_new(tls_->client_method());
        if (context_ == nullptr) {
            error = "TLS: " + tls_->crypto->TakeError();
            return false;
        }
        tls_->ctx_ctrl(context_, SSL_CTRL_SET_MIN_PROTO_VERSION, TLS1_2_VERSION, nullptr);
        tls_->ctx_set_verify(context_, SSL_VERIFY_PEER, nullptr);
        const bool loaded = settings_.caFile.empty() ? tls_->ctx_set_default_verify_paths(context_) == 1
                                                     : tls_->ctx_load_verify_locations(
                                                           context_, settings_.caFile.c_str(), nullptr) == 1;
        if (!loaded) {
            error =
                "TLS: cannot load the CA certificates " + settings_.caFile + ": " + tls_->crypto->TakeError();
            tls_->ctx_free(context_);
            context_ = nullptr;
            return false;
        }
    }
    ssl_ = tls_->ssl_new(context_);
    if (ssl_ == nullptr) {
        error = "TLS: " + tls_->crypto->TakeError();
        return false;
    }
    tls_->set_fd(ssl_, fd_);
    tls_->ssl_ctrl(ssl_, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                   const_cast<char*>(settings_.host.c_str()));
    tls_->set1_host(ssl_, settings_.host.c_str());
    if (tls_->connect(ssl_) != 1) {
        const long verify = tls_->get_verify_result(ssl_);
        error = "TLS handshake with " + settings_.host + " failed: " +
                (verify != X509_V_OK ? tls_->crypto->x509_verify_cert_error_string(verify)
                                     : tls_->crypto->TakeError().c_str());
        return false;
    }
    return true;
}

void SyslogSink::Disconnect() {
    if (ssl_ != nullptr) {
        tls_->shutdown(ssl_);  // close_notify, so the relay sees an orderly end, not an error
        tls_->ssl_free(ssl_);
        ssl_ = nullptr;
    }
    if (context_ != nullptr) {
        tls_->ctx_free(context_);
        context_ = nullptr;
    }
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

size_t SyslogSink::SendDatagrams(const std::vector<std::string>& lines, std::string& error) {
    const int pid = static_cast<int>(::getpid());
    for (size_t index = 0; index < lines.size(); ++index) {
        const std::string message = Format(lines[index], hostName_, pid);
        // The daemon's queue holds few datagrams: wait a little for room, but
        // never for ever (a daemon that stopped reading is retried later).
        ssize_t sent = ::send(fd_, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        for (int waits = 0; sent < 0 && (errno == EAGAIN || errno == EINTR) && waits < 50; ++waits) {
            pollfd room{fd_, POLLOUT, 0};
            ::poll(&room, 1, 100);
            sent = ::send(fd_, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        if (sent >= 0) {
            continue;
        }
        if (errno == EMSGSIZE) {
            // Not delivered: the pump splits it smaller, down to what this socket takes.
            error = "alert of " + std::to_string(message.size()) +
                    " bytes is too long for the syslog socket " + settings_.socket +
                    "; it is split smaller and sent again";
            datagramLimit_ = std::max(kMinDatagram, std::min(datagramLimit_, message.size()) / 2);
            return index;
        }
        error = std::strerror(errno);
        if (errno != EAGAIN && errno != ENOBUFS) {
            Disconnect();  // the daemon restarted: connect to its new socket
        }
        return index;
    }
    return lines.size();
}

size_t SyslogSink::SendFrames(const std::vector<std::string>& lines, std::string& error) {
    // TCP has no acknowledgement a relay's program gives: a frame counts once the
    // relay's kernel acknowledged its bytes. Each call starts with nothing queued
    // (the last one waited for that, or dropped the connection).
    const int pid = static_cast<int>(::getpid());
    std::vector<size_t> ends;  // bytes written by the end of each line's frame
    std::string frames;
    size_t written = 0;
    bool good = true;
    for (size_t index = 0; index < lines.size() && good; ++index) {
        const std::string message = Format(lines[index], hostName_, pid);
        frames += std::to_string(message.size()) + " " + message;
        ends.push_back(written + frames.size());
        if (frames.size() >= 256 * 1024 || index + 1 == lines.size()) {
            size_t sent = 0;
            good = WriteAll(frames, error, sent);
            written += sent;
            frames.clear();
        }
    }
    size_t unacknowledged = 0;
    if (good && WaitAcknowledged(unacknowledged)) {
        return lines.size();
    }
    if (good) {
        error = "the relay did not acknowledge " + std::to_string(unacknowledged) + " bytes in " +
                std::to_string(kIoTimeoutSeconds) + " s or closed the connection";
    }
    // What the relay acknowledged is delivered; the rest goes again on a new
    // connection. Over TLS the queued bytes are records, not lines: only a
    // fully acknowledged batch counts.
    size_t confirmed = 0;
    int queued = 0;
    if (ssl_ == nullptr && ::ioctl(fd_, SIOCOUTQ, &queued) == 0 && static_cast<size_t>(queued) <= written) {
        while (confirmed < ends.size() && ends[confirmed] <= written - static_cast<size_t>(queued)) {
            ++confirmed;
        }
    }
    Disconnect();
    return confirmed;
}

bool SyslogSink::WaitAcknowledged(size_t& unacknowledged) {
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        int queued = 0;
        if (::ioctl(fd_, SIOCOUTQ, &queued) != 0) {
            unacknowledged = SIZE_MAX;
            return false;
        }
        unacknowledged = static_cast<size_t>(queued);
        if (queued == 0) {
            return true;
        }
        // The relay closing (or resetting) with bytes unacknowledged will never take them.
        pollfd gone{fd_, POLLRDHUP, 0};
        if (::poll(&gone, 1, 5) > 0 && (gone.revents & (POLLRDHUP | POLLERR | POLLHUP)) != 0) {
            return false;
        }
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (now.tv_sec - start.tv_sec >= kIoTimeoutSeconds) {
            return false;
        }
    }
}

bool SyslogSink::WriteAll(const std::string& data, std::string& error, size_t& offset) {
    offset = 0;
    while (offset < data.size()) {
        if (ssl_ != nullptr) {
            const int written =
                tls_->write(ssl_, data.data() + offset, static_cast<int>(data.size() - offset));
            if (written <= 0) {
                error = "TLS write: " + tls_->crypto->TakeError();
                return false;
            }
            offset += static_cast<size_t>(written);
            continue;
        }
        const ssize_t written = ::send(fd_, data.data() + offset, data.size() - offset, MSG_NOSIGNAL);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            error = std::string("write: ") + (written < 0 ? std::strerror(errno) : "connection closed");
            return false;
        }
        offset += static_cast<size_t>(written);
    }
    return true;
}

}  // namespace Agent
