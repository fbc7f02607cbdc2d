#pragma once

#include <mutex>
#include <string>

#include "collect/NetProcsFullTask.h"

namespace TestSupport {

// "netproc_full_task" serving a connection table the test sets.
class FakeNetProcsFullTask : public Engine::NetProcsFullTask {
public:
    FakeNetProcsFullTask();

    // Adds a connection keyed by its inode; `remote` is a dotted IPv4 text.
    void AddConnection(long inode, const std::string& remote, unsigned int remotePort, int state);
    int GetNetCacheMap(NetMap& out) override;

    int Run() override;  // waits until cancelled

private:
    std::mutex mutex_;
    NetMap table_;
};

}  // namespace TestSupport
