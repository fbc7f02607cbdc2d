#include "support/FakeProcsFullTask.h"

namespace TestSupport {

FakeProcsFullTask::FakeProcsFullTask() = default;

void FakeProcsFullTask::SetTable(const ProcsMap& table) {
    std::lock_guard<std::mutex> lock(mutex_);
    table_ = table;
}

void FakeProcsFullTask::Put(const std::shared_ptr<Engine::ProcsMessage::procInfo>& record) {
    std::lock_guard<std::mutex> lock(mutex_);
    table_[record->pid] = record;
}

int FakeProcsFullTask::GetProcsMap(ProcsMap& out) {
    std::lock_guard<std::mutex> lock(mutex_);
    out = table_;
    return static_cast<int>(out.size());
}

int FakeProcsFullTask::GetProcsMapFresh(ProcsMap& out, const std::vector<int>& /*compared*/) {
    return GetProcsMap(out);
}

int FakeProcsFullTask::Run() {
    while (!sleep(1000)) {
    }
    return 0;
}

std::shared_ptr<Engine::ProcsMessage::procInfo> MakeProc(int pid, const std::string& exePath, int ppid) {
    auto record = std::make_shared<Engine::ProcsMessage::procInfo>();
    record->pid = pid;
    record->ppid = ppid;
    record->uid = record->euid = record->suid = 1000;
    record->gid = record->egid = record->sgid = 1000;
    record->exePath = exePath;
    const size_t slash = exePath.rfind('/');
    record->name = slash == std::string::npos ? exePath : exePath.substr(slash + 1);
    record->cmdline = exePath;
    return record;
}

}  // namespace TestSupport
