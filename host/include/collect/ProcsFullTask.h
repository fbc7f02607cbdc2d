#pragma once

#include <map>
#include <memory>
#include <mutex>

#include "collect/ProcsMessage.h"
#include "framework/Task.h"

namespace Engine {

class ProcTableScanner;

// "procs_full_task": keeps a snapshot of every live process, refreshed in its
// own thread every few seconds (and on demand when older than that).
class ProcsFullTask : public Framework::Task {
public:
    using ProcsMap = std::map<int, std::shared_ptr<ProcsMessage::procInfo>>;
    static constexpr const char* kTaskName = "procs_full_task";

    // `refreshSeconds`: how old a snapshot may get before it is taken again.
    explicit ProcsFullTask(int refreshSeconds = 3);

    // Fills `out` (replacing its contents) with a snapshot at most refreshSeconds
    // old, keyed by pid. Safe from any thread. Returns the number of processes.
    virtual int GetProcsMap(ProcsMap& out);

    int Run() override;

protected:
    ~ProcsFullTask() override;

private:
    void RefreshIfStale();

    const int refreshSeconds_;
    std::mutex mutex_;  // guards snapshot_ and takenAtMs_
    std::shared_ptr<const ProcsMap> snapshot_;
    long long takenAtMs_ = -1;
    std::mutex refreshMutex_;  // one scan at a time; guards scanner_
    std::unique_ptr<ProcTableScanner> scanner_;
};

}  // namespace Engine
