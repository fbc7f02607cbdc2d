#pragma once

#include <map>
#include <memory>

#include "collect/ProcsMessage.h"
#include "collect/TimedSnapshot.h"
#include "framework/Task.h"

namespace Engine {

class ProcTableScanner;

// "procs_full_task": a snapshot of every live process, taken on demand when the
// last one is older than the refresh interval, so an idle host costs nothing.
class ProcsFullTask : public Framework::Task {
public:
    using ProcsMap = std::map<int, std::shared_ptr<ProcsMessage::procInfo>>;
    static constexpr const char* kTaskName = "procs_full_task";

    // `refreshSeconds`: how old a snapshot may get before it is taken again.
    explicit ProcsFullTask(int refreshSeconds = 3);

    // Fills `out` (replacing its contents) with a snapshot at most refreshSeconds
    // old, keyed by pid. Safe from any thread. Returns the number of processes.
    virtual int GetProcsMap(ProcsMap& out);

    // Changes the refresh interval (at least 1 s); safe from any thread.
    void SetRefreshSeconds(int seconds);

    int Run() override;

protected:
    ~ProcsFullTask() override;

private:
    void TakeSnapshot(ProcsMap& fresh);

    TimedSnapshot<ProcsMap> snapshot_;
    std::unique_ptr<ProcTableScanner> scanner_;  // used by one snapshot at a time
};

}  // namespace Engine
