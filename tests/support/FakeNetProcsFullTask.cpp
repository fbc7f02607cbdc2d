#include "support/FakeNetProcsFullTask.h"

#include <arpa/inet.h>

namespace TestSupport {

FakeNetProcsFullTask::FakeNetProcsFullTask() : Engine::NetProcsFullTask(1) {}

void FakeNetProcsFullTask::AddConnection(long inode, const std::string& remote, unsigned int remotePort,
                                         int state) {
    auto connection = std::make_shared<Engine::NetProcsMessage::netProcInfo>();
    connection->inode = inode;
    connection->remoteAddr = inet_addr(remote.c_str());
    connection->remotePort = remotePort;
    connection->state = state;
    connection->text = "fake -> " + remote + ":" + std::to_string(remotePort);
    std::lock_guard<std::mutex> lock(mutex_);
    table_[inode] = connection;
}

int FakeNetProcsFullTask::GetNetCacheMap(NetMap& out) {
    std::lock_guard<std::mutex> lock(mutex_);
    out = table_;
    return static_cast<int>(out.size());
}

int FakeNetProcsFullTask::Run() {
    while (!sleep(1000)) {
    }
    return 0;
}

}  // namespace TestSupport
