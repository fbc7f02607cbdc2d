#pragma once

#include <string>

#include "ConnectionSource.h"

namespace Engine {

// Reads <proc root>/net/tcp and <proc root>/net/tcp6.
class ProcNetTcpSource : public ConnectionSource {
public:
    explicit ProcNetTcpSource(const std::string& procRoot);
    const char* Name() const override { return "/proc/net/tcp"; }
    bool Collect(NetProcsFullTask::NetMap& out, std::string& error) override;

private:
    std::string root_;
    std::string text_;  // reused between refreshes
};

}  // namespace Engine
