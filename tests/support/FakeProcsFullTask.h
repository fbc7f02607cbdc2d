#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "collect/ProcsFullTask.h"

namespace TestSupport {

// "procs_full_task" serving a table the test sets.
class FakeProcsFullTask : public Engine::ProcsFullTask {
public:
    FakeProcsFullTask();

    void SetTable(const ProcsMap& table);
    // Adds or replaces one record (the pid is the record's).
    void Put(const std::shared_ptr<Engine::ProcsMessage::procInfo>& record);
    int GetProcsMap(ProcsMap& out) override;
    // The table as set: its records are as fresh as the test makes them.
    int GetProcsMapFresh(ProcsMap& out, const std::vector<int>& compared) override;

    int Run() override;  // waits until cancelled

private:
    mutable std::mutex mutex_;
    ProcsMap table_;
};

// A record with the given fields; identities 1000 unless set afterwards.
std::shared_ptr<Engine::ProcsMessage::procInfo> MakeProc(int pid, const std::string& exePath, int ppid = 1);

}  // namespace TestSupport
