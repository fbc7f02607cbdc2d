#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "collect/ProcsFullTask.h"

namespace TestSupport {

// "procs_full_task" serving a table the test sets.
class FakeProcsFullTask : public Engine::ProcsFullTask {
public:
    void SetTable(const ProcsMap& table) {
        std::lock_guard<std::mutex> lock(mutex_);
        table_ = table;
    }
    // Adds or replaces one record (the pid is the record's).
    void Put(const std::shared_ptr<Engine::ProcsMessage::procInfo>& record) {
        std::lock_guard<std::mutex> lock(mutex_);
        table_[record->pid] = record;
    }
    int GetProcsMap(ProcsMap& out) override {
        std::lock_guard<std::mutex> lock(mutex_);
        out = table_;
        return static_cast<int>(out.size());
    }
    // The table as set: its records are as fresh as the test makes them.
    int GetProcsMapFresh(ProcsMap& out, const std::vector<int>&) override { return GetProcsMap(out); }

    int Run() override {  // waits until cancelled
        while (!sleep(1000)) {
        }
        return 0;
    }

private:
    std::mutex mutex_;
    ProcsMap table_;
};

// A record with the given fields; identities 1000 unless set afterwards.
inline std::shared_ptr<Engine::ProcsMessage::procInfo> MakeProc(int pid, const std::string& exePath,
                                                                int ppid = 1) {
    auto record = std::make_shared<Engine::ProcsMessage::procInfo>();
    record->pid = pid;
    record->ppid = ppid;
    record->uid = record->euid = record->suid = 1000;
    record->gid = record->egid = record->sgid = 1000;
    record->exePath = exePath;
    record->name = exePath.substr(exePath.rfind('/') + 1);  // npos + 1 is 0: all of it
    record->cmdline = exePath;
    return record;
}

}  // namespace TestSupport
