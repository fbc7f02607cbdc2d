#include "LiveProcTable.h"

#include <algorithm>
#include <chrono>
#include <unordered_set>

#include "ProcRecordParser.h"
#include "SteadyClock.h"
#include "sdk/ProcParsers.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {

// The fields a status file gives.
bool SameStatus(const ProcsMessage::procInfo& a, const ProcsMessage::procInfo& b) {
    return a.uid == b.uid && a.euid == b.euid && a.suid == b.suid && a.gid == b.gid && a.egid == b.egid &&
           a.sgid == b.sgid && a.capSetuid == b.capSetuid && a.capSetgid == b.capSetgid;
}

}  // namespace

LiveProcTable::LiveProcTable(int refreshSeconds) : refreshSeconds_(std::max(1, refreshSeconds)) {}

LiveProcTable::~LiveProcTable() = default;

void LiveProcTable::Follow(std::shared_ptr<ProcChangeLog> log) {
    std::lock_guard<std::mutex> lock(refreshMutex_);
    log_ = std::move(log);
}

void LiveProcTable::SetRefreshSeconds(int seconds) {
    refreshSeconds_.store(std::max(1, seconds));
}

int LiveProcTable::Get(ProcsFullTask::ProcsMap& out, const std::vector<int>* compared) {
    {
        std::lock_guard<std::mutex> lock(refreshMutex_);
        if (refreshedAtMs_ < 0 || SteadyNowMs() - refreshedAtMs_ >= refreshSeconds_.load() * 1000LL) {
            Refresh();
        }
        if (compared != nullptr && !compared->empty()) {
            RereadCompared(*compared);
        }
    }
    std::shared_ptr<const ProcsMap> snapshot;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        snapshot = snapshot_;
    }
    if (snapshot) {
        out = *snapshot;
    } else {
        out.clear();
    }
    return static_cast<int>(out.size());
}

void LiveProcTable::EnsureScanner() {
    const std::string& root = SDK::ProcessUtils::GetProcRoot();
    if (!scanner_ || scanner_->GetRoot() != root) {
        scanner_ = std::make_unique<ProcTableScanner>(root);
        executables_ = std::make_unique<ExecutableWatch>(root);
        comparedFiles_ = std::make_unique<KeptProcessFiles>(root);
        fullScanAtMs_ = -1;  // another tree: nothing known of it
    }
}

void LiveProcTable::Refresh() {
    EnsureScanner();
    if (log_) {
        log_->Take(changes_);
    } else {
        changes_ = ProcChangeLog::Changes();
    }
    const long long now = SteadyNowMs();
    std::shared_ptr<const ProcsMap> current;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        current = snapshot_;
    }
    const bool rescan = !changes_.live || changes_.lost || !current || fullScanAtMs_ < 0 ||
                        now - fullScanAtMs_ >= kFullScanMs;
    std::shared_ptr<ProcsMap> fresh;
    justRead_.clear();
    if (justRead_.bucket_count() > 1024) {
        std::unordered_set<int>().swap(justRead_);  // the buckets of a storm's pids
    }
    if (rescan) {
        fresh = std::make_shared<ProcsMap>();
        scanner_->TakeSnapshot(*fresh, &scannedZombies_, current.get());  // links the parents itself
        zombies_.clear();
        zombies_.insert(scannedZombies_.begin(), scannedZombies_.end());
        executables_->Clear();  // every link was just read
        fullScanAtMs_ = now;
        ++fullScans_;
    } else {
        if (!changes_.changed.empty() || !changes_.exited.empty() || !zombies_.empty()) {
            fresh = std::make_shared<ProcsMap>(*current);
            Apply(changes_, *fresh);
        }
        RecheckExecutables(fresh ? *fresh : *current, fresh);
        if (fresh) {
            LinkParents(*fresh);
        }
    }
    refreshedAtMs_ = now;
    comparedRead_.clear();
    if (fresh) {
        std::lock_guard<std::mutex> lock(mutex_);
        snapshot_ = std::move(fresh);
    }
}

void LiveProcTable::Reread(int pid, ProcsMap& table) {
    justRead_.insert(pid);
    auto record = std::make_shared<ProcsMessage::procInfo>();
    bool zombie = false;
    if (!scanner_->ReadRecord(pid, ProcFsReader::kAll, *record, &zombie)) {
        table.erase(pid);
        zombies_.erase(pid);
        return;
    }
    table[pid] = std::move(record);
    if (zombie) {
        zombies_.insert(pid);
    } else {
        zombies_.erase(pid);  // the pid was given to a new process
    }
}

void LiveProcTable::Apply(const ProcChangeLog::Changes& changes, ProcsMap& table) {
    std::vector<int> pids(zombies_.begin(), zombies_.end());
    pids.insert(pids.end(), changes.changed.begin(), changes.changed.end());
    pids.insert(pids.end(), changes.exited.begin(), changes.exited.end());
    std::sort(pids.begin(), pids.end());
    pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
    for (const int pid : pids) {
        Reread(pid, table);
    }
    if (changes.exited.empty()) {
        return;
    }
    // Children of exited processes were given to another parent without an event.
    const std::unordered_set<int> exited(changes.exited.begin(), changes.exited.end());
    std::vector<int> orphans;
    for (const auto& [pid, record] : table) {
        if (exited.count(record->ppid) != 0) {
            orphans.push_back(pid);
        }
    }
    for (const int pid : orphans) {
        Reread(pid, table);
    }
}

void LiveProcTable::RecheckExecutables(const ProcsMap& table, std::shared_ptr<ProcsMap>& fresh) {
    executables_->FindSuspects(table, justRead_, suspects_);
    std::string path;
    for (const int pid : suspects_) {
        const int error = scanner_->ReadExeLink(pid, path);
        const auto known = table.find(pid);
        if (known == table.end() || (error == 0 && path == known->second->exePath)) {
            continue;
        }
        if (!fresh) {
            fresh = std::make_shared<ProcsMap>(table);
        }
        if (error != 0) {
            Reread(pid, *fresh);  // gone or a zombie by now: as a rescan would find it
            continue;
        }
        auto moved = std::make_shared<ProcsMessage::procInfo>(*known->second);
        moved->exePath = path;
        (*fresh)[pid] = std::move(moved);
    }
}

void LiveProcTable::RereadCompared(const std::vector<int>& compared) {
    std::shared_ptr<const ProcsMap> current;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        current = snapshot_;
    }
    if (!current) {
        return;
    }
    // A check compares a process with its parent as well.
    std::unordered_set<int> wanted(compared.begin(), compared.end());
    for (const int pid : compared) {
        const auto known = current->find(pid);
        if (known != current->end() && known->second) {
            wanted.insert(known->second->ppid);
        }
    }
    std::shared_ptr<ProcsMap> fresh;
    ProcFsBuffers buffers;
    std::string cmdline;
    for (const int pid : wanted) {
        const auto known = current->find(pid);
        if (known == current->end() || !known->second || justRead_.count(pid) != 0 ||
            !comparedRead_.insert(pid).second) {
            continue;
        }
        const ProcsMessage::procInfo& record = *known->second;
        if (!comparedFiles_->Read(pid, record.startTime, buffers)) {
            continue;  // gone: the next refresh takes its exit
        }
        ProcsMessage::procInfo ids;
        ProcRecordParser::FillStatus(buffers.status.View(), ids);
        SDK::JoinCmdline(buffers.cmdline.View(), ProcRecordParser::kMaxCmdline, cmdline);
        if (SameStatus(ids, record) && cmdline == record.cmdline) {
            continue;
        }
        auto reread = std::make_shared<ProcsMessage::procInfo>(record);
        ProcRecordParser::FillStatus(buffers.status.View(), *reread);
        reread->cmdline = cmdline;
        // An exec shows its new program before it commits the new credentials, so a
        // link read after the status names the program those credentials came with.
        // A process that executed since its record was read is read whole, so that
        // its record never pairs one program's path with another's credentials.
        std::string path;
        if (scanner_->ReadExeLink(pid, path) == 0 && path != record.exePath) {
            ProcsMessage::procInfo whole;
            if (!scanner_->ReadRecord(pid, ProcFsReader::kAll, whole) ||
                whole.startTime != record.startTime) {
                continue;  // gone, or its pid went to another process: the next refresh sees it
            }
            whole.parentExePath = record.parentExePath;
            whole.parentStartTime = record.parentStartTime;
            *reread = std::move(whole);
        }
        if (!fresh) {
            fresh = std::make_shared<ProcsMap>(*current);
        }
        (*fresh)[pid] = std::move(reread);
    }
    comparedFiles_->Retain(wanted);
    if (fresh) {
        std::lock_guard<std::mutex> lock(mutex_);
        snapshot_ = std::move(fresh);
    }
}

void LiveProcTable::LinkParents(ProcsMap& table) {
    static const std::string kNoPath;
    for (auto& entry : table) {
        const ProcsMessage::procInfo& record = *entry.second;
        const auto parent = table.find(record.ppid);
        const std::string& parentPath = parent != table.end() ? parent->second->exePath : kNoPath;
        const int64_t parentStart = parent != table.end() ? parent->second->startTime : 0;
        if (record.parentStartTime != parentStart || record.parentExePath != parentPath) {
            auto linked = std::make_shared<ProcsMessage::procInfo>(record);
            linked->parentExePath = parentPath;
            linked->parentStartTime = parentStart;
            entry.second = std::move(linked);
        }
    }
}

}  // namespace Engine
