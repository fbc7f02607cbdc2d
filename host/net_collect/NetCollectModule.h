#pragma once

#include <string>

#include "framework/Module.h"
#include "framework/Policy.h"

namespace Engine {

// The module's name, also the logger its pieces write their lines to.
inline constexpr char kNetCollectModuleName[] = "net_collect_module";

class NetProcsFullTask;

// The host's network-collect module: the connection table task "netproc_full_task".
class NetCollectModule : public Framework::Module {
public:
    NetCollectModule();
    ~NetCollectModule() override;

    int Init() override;

    // The agent's collector settings, {"refresh_seconds": N}, delivered under
    // this module's settings id; they change the task's refresh interval.
    Framework::Policy* RefreshSettings(const std::string& featureName, const std::string& content,
                                       Framework::Policy*& current);

private:
    NetProcsFullTask* task_ = nullptr;  // our reference; the engine holds its own while registered
};

}  // namespace Engine
