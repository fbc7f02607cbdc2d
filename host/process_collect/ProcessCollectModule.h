#pragma once

#include <string>

#include "framework/Module.h"
#include "framework/Policy.h"

namespace Engine {

// The module's name, also the logger its pieces write their lines to.
inline constexpr char kProcessCollectModuleName[] = "process_collect_module";

class LiveProcsFullTask;
class ProcsRealTask;

// The host's process-collect module: the snapshot task "procs_full_task" and
// the event task "procs_real_task", both host (system) tasks.
class ProcessCollectModule : public Framework::Module {
public:
    ProcessCollectModule();
    ~ProcessCollectModule() override;

    int Init() override;

    // The agent's collector settings, {"refresh_seconds": N}, delivered under
    // this module's settings id; they change the task's refresh interval.
    Framework::Policy* RefreshSettings(const std::string& featureName, const std::string& content,
                                       Framework::Policy*& current);

private:
    LiveProcsFullTask* fullTask_ = nullptr;  // our references; the engine holds its own while registered
    ProcsRealTask* realTask_ = nullptr;
};

}  // namespace Engine
