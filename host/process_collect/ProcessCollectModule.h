#pragma once

#include "framework/Module.h"

namespace Engine {

class ProcsFullTask;
class ProcsRealTask;

// The host's process-collect module: the snapshot task "procs_full_task" and
// the event task "procs_real_task", both host (system) tasks.
class ProcessCollectModule : public Framework::Module {
public:
    ProcessCollectModule();
    ~ProcessCollectModule() override;

    int Init() override;

private:
    ProcsFullTask* fullTask_ = nullptr;  // our references; the engine holds its own while registered
    ProcsRealTask* realTask_ = nullptr;
};

}  // namespace Engine
