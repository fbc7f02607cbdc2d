#pragma once

#include "framework/Module.h"

namespace Engine {

class NetProcsFullTask;

// The host's network-collect module: the connection table task "netproc_full_task".
class NetCollectModule : public Framework::Module {
public:
    NetCollectModule();
    ~NetCollectModule() override;

    int Init() override;

private:
    NetProcsFullTask* task_ = nullptr;  // our reference; the engine holds its own while registered
};

}  // namespace Engine
