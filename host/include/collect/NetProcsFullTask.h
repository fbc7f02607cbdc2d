#pragma once

#include <map>
#include <memory>
#include <string>

#include "collect/TimedSnapshot.h"
#include "framework/Message.h"
#include "framework/Task.h"

namespace Engine {

class ConnectionSource;

class NetProcsMessage : public Framework::Message {
public:
    // One TCP connection of the host.
    struct netProcInfo {
        unsigned int localAddr = 0;  // IPv4 as inet_addr gives it (network byte order)
        unsigned int localPort = 0;
        unsigned int remoteAddr = 0;  // same form as /proc/net/tcp prints it
        unsigned int remotePort = 0;
        long inode = 0;  // socket inode
        int state = 0;   // kernel TCP state: 1 established, 2 SYN sent, 10 listen, ...
        unsigned int uid = 0;
        std::string text;  // printable "local -> remote state"
    };

    NetProcsMessage() : Framework::Message("netprocs_message") {}
};

// "netproc_full_task": the host's TCP connections over IPv4 (and IPv4-mapped
// IPv6), refreshed on demand when older than a few seconds.
class NetProcsFullTask : public Framework::Task {
public:
    using NetMap = std::map<long, std::shared_ptr<NetProcsMessage::netProcInfo>>;
    static constexpr const char* kTaskName = "netproc_full_task";

    explicit NetProcsFullTask(int refreshSeconds = 3);

    // Fills `out` (replacing its contents) keyed by socket inode; connections
    // that no socket owns any more (inode 0, as in TIME_WAIT) are left out.
    // Safe from any thread. Returns the number of connections.
    virtual int GetNetCacheMap(NetMap& out);

    // Changes the refresh interval (at least 1 s); safe from any thread.
    void SetRefreshSeconds(int seconds);

    int Run() override;

protected:
    ~NetProcsFullTask() override;

private:
    void Collect(NetMap& fresh);

    TimedSnapshot<NetMap> snapshot_;
    // Used by one refresh at a time.
    std::unique_ptr<ConnectionSource> source_;    // the faster way
    std::unique_ptr<ConnectionSource> fallback_;  // used once source_ fails
};

}  // namespace Engine
