#pragma once

#include <map>
#include <memory>
#include <vector>

#include "collect/ProcsMessage.h"
#include "framework/Task.h"

namespace Engine {

class LiveProcTable;
class ProcChangeLog;

// "procs_full_task": a table of every live process, brought up to date on demand
// when it is older than the refresh interval, so an idle host costs nothing.
// Given the event producer's change log, an update re-reads only the processes
// that changed; otherwise it rescans /proc.
class ProcsFullTask : public Framework::Task {
public:
    using ProcsMap = std::map<int, std::shared_ptr<ProcsMessage::procInfo>>;
    static constexpr const char* kTaskName = "procs_full_task";

    // `refreshSeconds`: how old a snapshot may get before it is taken again.
    explicit ProcsFullTask(int refreshSeconds = 3);

    // Fills `out` (replacing its contents) with a snapshot at most refreshSeconds
    // old, keyed by pid. Safe from any thread. Returns the number of processes.
    // The executable path is as a rescan of /proc would read it then, also when
    // the file was deleted, replaced or moved with no kernel event; the other
    // fields are as of the process's last event, and capabilities and command
    // line (which change with none) as of the last rescan at worst (README,
    // "What the collectors deliver").
    virtual int GetProcsMap(ProcsMap& out);
    // The same, and the capabilities, identities and command lines of `compared`
    // and of their parents are as current as the rest: read again once per
    // refresh interval, since capset(2) and a command line rewritten in place
    // raise no event. For a consumer that compares those of a few processes.
    virtual int GetProcsMapFresh(ProcsMap& out, const std::vector<int>& compared);

    // Changes the refresh interval (at least 1 s); safe from any thread.
    void SetRefreshSeconds(int seconds);

    // Follows the changes noted by the event producer (before the task runs).
    void FollowChanges(std::shared_ptr<ProcChangeLog> log);
    // Rescans of the whole of /proc so far (for tests and benchmarks).
    unsigned long GetFullScanCount() const;

    int Run() override;

protected:
    ~ProcsFullTask() override;

private:
    std::unique_ptr<LiveProcTable> table_;
};

}  // namespace Engine
