#pragma once

#include <arpa/inet.h>

#include <memory>
#include <mutex>
#include <string>

#include "collect/NetProcsFullTask.h"

namespace TestSupport {

// "netproc_full_task" serving a connection table the test sets.
class FakeNetProcsFullTask : public Engine::NetProcsFullTask {
public:
    FakeNetProcsFullTask() : Engine::NetProcsFullTask(1) {}

    // Adds a connection keyed by its inode; `remote` is a dotted IPv4 text.
    void AddConnection(long inode, const std::string& remote, unsigned int remotePort, int state) {
        auto connection = std::make_shared<Engine::NetProcsMessage::netProcInfo>();
        connection->inode = inode;
        connection->remoteAddr = inet_addr(remote.c_str());
        connection->remotePort = remotePort;
        connection->state = state;
        connection->text = "fake -> " + remote + ":" + std::to_string(remotePort);
        std::lock_guard<std::mutex> lock(mutex_);
        table_[inode] = connection;
    }
    int GetNetCacheMap(NetMap& out) override {
        std::lock_guard<std::mutex> lock(mutex_);
        out = table_;
        return static_cast<int>(out.size());
    }

    int Run() override {  // waits until cancelled
        while (!sleep(1000)) {
        }
        return 0;
    }

private:
    std::mutex mutex_;
    NetMap table_;
};

}  // namespace TestSupport
