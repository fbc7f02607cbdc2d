#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ProcEvent.h"

namespace Engine {

// The kernel's process connector (NETLINK_CONNECTOR, group CN_IDX_PROC): opens
// and subscribes the socket and receives decoded events. Holds no event logic.
class ProcConnectorReader {
public:
    enum class OpenResult { kOk, kNoPrivilege, kFailed };
    enum class ReadResult {
        kOk,       // zero or more events (timeout included)
        kOverrun,  // the kernel dropped events (ENOBUFS); the events before are returned
        kFailed,   // the socket is unusable
    };

    // `receiveBufferBytes`: asked with SO_RCVBUFFORCE, SO_RCVBUF when that is refused.
    explicit ProcConnectorReader(int receiveBufferBytes = 8 << 20);
    ~ProcConnectorReader();

    ProcConnectorReader(const ProcConnectorReader&) = delete;
    ProcConnectorReader& operator=(const ProcConnectorReader&) = delete;

    // kNoPrivilege: bind or the listen request was refused with EPERM/EACCES.
    // `detail` says what failed.
    OpenResult Open(std::string& detail);
    void Close();
    bool IsOpen() const { return fd_ >= 0; }

    // Waits up to `timeoutMs` for events, then takes what is queued without
    // waiting, up to about `maxEvents`; appends to `out`. A readable `wakeFd` (an
    // eventfd, or -1) ends the wait early and is drained.
    ReadResult Receive(int timeoutMs, size_t maxEvents, std::vector<ProcEvent>& out, std::string& detail,
                       int wakeFd = -1);

    // The receive buffer the kernel granted (bytes), for the log.
    int GetReceiveBufferBytes() const { return grantedBuffer_; }
    // Messages the decoder had to skip.
    unsigned long GetMalformedCount() const { return malformed_; }

private:
    // 0 or the errno of send().
    int SendListen(unsigned op);

    const int wantedBuffer_;
    int grantedBuffer_ = 0;
    int fd_ = -1;
    unsigned long malformed_ = 0;
};

}  // namespace Engine
