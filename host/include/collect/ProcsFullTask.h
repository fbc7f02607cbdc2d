#pragma once

#include <map>
#include <memory>
#include <vector>

#include "collect/ProcsMessage.h"
#include "framework/Task.h"

namespace Engine {

// "procs_full_task": a table of every live process. The process-collect module
// registers the one that reads the host (README, "What the collectors deliver");
// consumers find it by name and ask it for copies of the table.
class ProcsFullTask : public Framework::Task {
public:
    using ProcsMap = std::map<int, std::shared_ptr<ProcsMessage::procInfo>>;
    static constexpr const char* kTaskName = "procs_full_task";

    // Fills `out` (replacing its contents) with a snapshot at most the refresh
    // interval old, keyed by pid. Safe from any thread. Returns the number of
    // processes. The executable path is as a rescan of /proc would read it then,
    // also when the file was deleted, replaced or moved with no kernel event; the
    // other fields are as of the process's last event, and capabilities and
    // command line (which change with none) as of the last rescan at worst.
    virtual int GetProcsMap(ProcsMap& out) = 0;
    // The same, and the capabilities, identities and command lines of `compared`
    // and of their parents are as current as the rest: read again once per
    // refresh interval, since capset(2) and a command line rewritten in place
    // raise no event. For a consumer that compares those of a few processes.
    virtual int GetProcsMapFresh(ProcsMap& out, const std::vector<int>& compared);

protected:
    ProcsFullTask();
    ~ProcsFullTask() override;
};

}  // namespace Engine
