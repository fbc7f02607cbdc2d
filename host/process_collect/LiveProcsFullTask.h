#pragma once

#include <memory>
#include <vector>

#include "collect/ProcsFullTask.h"

namespace Engine {

class LiveProcTable;
class ProcChangeLog;

// The host's "procs_full_task": a live table brought up to date on demand when it
// is older than the refresh interval, so an idle host costs nothing. Given the
// event producer's change log, an update re-reads only the processes that
// changed; otherwise it rescans /proc.
class LiveProcsFullTask : public ProcsFullTask {
public:
    // `refreshSeconds`: how old a snapshot may get before it is taken again.
    explicit LiveProcsFullTask(int refreshSeconds = 3);

    int GetProcsMap(ProcsMap& out) override;
    int GetProcsMapFresh(ProcsMap& out, const std::vector<int>& compared) override;

    // Changes the refresh interval (at least 1 s); safe from any thread.
    void SetRefreshSeconds(int seconds);
    // Follows the changes noted by the event producer (before the task runs).
    void FollowChanges(std::shared_ptr<ProcChangeLog> log);
    // Rescans of the whole of /proc so far (for tests and benchmarks).
    unsigned long GetFullScanCount() const;

    int Run() override;

protected:
    ~LiveProcsFullTask() override;  // reference-counted: release()

private:
    std::unique_ptr<LiveProcTable> table_;
};

}  // namespace Engine
