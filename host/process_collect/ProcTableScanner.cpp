#include "ProcTableScanner.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ProcessCollectModule.h"
#include "sdk/HostLog.h"
#include "sdk/ProcParsers.h"

namespace Engine {

namespace {

// Everything a read gives, that is all but the parent's path and start time,
// which come from the table.
bool SameOwnFields(const ProcsMessage::procInfo& a, const ProcsMessage::procInfo& b) {
    return a.pid == b.pid && a.ppid == b.ppid && a.uid == b.uid && a.euid == b.euid && a.gid == b.gid &&
           a.egid == b.egid && a.suid == b.suid && a.sgid == b.sgid && a.capSetuid == b.capSetuid &&
           a.capSetgid == b.capSetgid && a.startTime == b.startTime && a.startTimeSec == b.startTimeSec &&
           a.name == b.name && a.exePath == b.exePath && a.cmdline == b.cmdline;
}

// A pid directory name: digits only, fits an int.
bool ParsePidName(const char* name, int& pid) {
    long value = 0;
    if (*name == '\0') {
        return false;
    }
    for (const char* p = name; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9' || value > 100000000) {
            return false;
        }
        value = value * 10 + (*p - '0');
    }
    pid = static_cast<int>(value);
    return pid > 0;
}

}  // namespace

ProcTableScanner::ProcTableScanner(const std::string& procRoot) : reader_(procRoot) {}

const ProcRecordParser& ProcTableScanner::Parser() {
    if (!parser_) {
        // The boot time is fixed for the life of the system; read it once.
        int64_t bootTime = 0;
        std::string procStat;
        const int error = reader_.ReadRootFile("stat", procStat);
        if (error != 0 || !SDK::ParseBootTime(procStat, bootTime)) {
            HOST_MODULE_LOG_ERROR(kProcessCollectModuleName,
                                  "no boot time in " + reader_.GetRoot() + "/stat (" +
                                      (error != 0 ? std::string(std::strerror(error)) : "no btime line") +
                                      "); start times in seconds count from the epoch");
        }
        parser_ = std::make_unique<ProcRecordParser>(bootTime, ::sysconf(_SC_CLK_TCK));
    }
    return *parser_;
}

void ProcTableScanner::ResetErrors() {
    errorCount_ = 0;
    firstError_.clear();
}

void ProcTableScanner::NoteError(int pid, const char* part, int error) {
    if (errorCount_++ == 0) {
        firstError_ =
            reader_.GetRoot() + "/" + std::to_string(pid) + "/" + part + ": " + std::strerror(error);
    }
}

bool ProcTableScanner::ListPids(std::vector<int>& pids, std::string& error) const {
    pids.clear();
    DIR* dir = ::opendir(reader_.GetRoot().c_str());
    if (dir == nullptr) {
        error = reader_.GetRoot() + ": " + std::strerror(errno);
        return false;
    }
    while (const dirent* entry = ::readdir(dir)) {
        int pid = 0;
        if (ParsePidName(entry->d_name, pid)) {
            pids.push_back(pid);
        }
    }
    ::closedir(dir);
    std::sort(pids.begin(), pids.end());
    return true;
}

bool ProcTableScanner::ReadRecord(int pid, unsigned parts, ProcsMessage::procInfo& out, bool* zombie) {
    const ProcRecordParser& parser = Parser();
    ProcFsBuffers buffers;
    if (!reader_.Read(pid, parts | ProcFsReader::kStat, buffers)) {
        return false;
    }
    if (buffers.stat.error != 0) {
        NoteError(pid, "stat", buffers.stat.error);
        return false;
    }
    // A file that vanished after stat was read means the process is gone.
    const struct {
        unsigned part;
        int error;
        const char* name;
    } others[] = {{ProcFsReader::kStatus, buffers.status.error, "status"},
                  {ProcFsReader::kCmdline, buffers.cmdline.error, "cmdline"}};
    for (const auto& other : others) {
        if ((parts & other.part) && other.error != 0) {
            if (ProcFsReader::IsVanished(other.error)) {
                return false;
            }
            NoteError(pid, other.name, other.error);
        }
    }
    // No exe link is normal for kernel threads and zombies.
    if ((parts & ProcFsReader::kExe) && buffers.exe.error != 0 &&
        !ProcFsReader::IsVanished(buffers.exe.error)) {
        NoteError(pid, "exe", buffers.exe.error);
    }
    ProcTexts texts;
    texts.stat = buffers.stat.View();
    texts.status = (parts & ProcFsReader::kStatus) ? buffers.status.View() : std::string_view();
    texts.cmdline = (parts & ProcFsReader::kCmdline) ? buffers.cmdline.View() : std::string_view();
    texts.exe = (parts & ProcFsReader::kExe) ? buffers.exe.View() : std::string_view();
    if (!parser.Build(texts, out)) {
        NoteError(pid, "stat", EINVAL);
        return false;
    }
    if (zombie != nullptr) {
        SDK::ProcStatFields fields;
        *zombie = SDK::ParseStat(texts.stat, fields) && (fields.state == 'Z' || fields.state == 'X');
    }
    return true;
}

int ProcTableScanner::ReadExeLink(int pid, std::string& out) const {
    ProcFsBuffers buffers;
    reader_.Read(pid, ProcFsReader::kExe, buffers);
    if (buffers.exe.error == 0) {
        out.assign(buffers.exe.data, buffers.exe.size);
    }
    return buffers.exe.error;
}

bool ProcTableScanner::TakeSnapshot(ProcsFullTask::ProcsMap& out, std::vector<int>* zombies,
                                    const ProcsFullTask::ProcsMap* previous) {
    out.clear();
    if (zombies != nullptr) {
        zombies->clear();
    }
    ResetErrors();
    std::vector<int> pids;
    std::string error;
    if (!ListPids(pids, error)) {
        HOST_MODULE_LOG_ERROR(kProcessCollectModuleName, "cannot list processes: " + error);
        return false;
    }
    for (const int pid : pids) {
        ProcsMessage::procInfo read;
        bool zombie = false;
        if (!ReadRecord(pid, ProcFsReader::kAll, read, zombies != nullptr ? &zombie : nullptr)) {
            continue;
        }
        std::shared_ptr<ProcsMessage::procInfo> record;
        if (previous != nullptr) {
            const auto kept = previous->find(pid);
            if (kept != previous->end() && kept->second && SameOwnFields(*kept->second, read)) {
                record = kept->second;
            }
        }
        if (!record) {
            record = std::make_shared<ProcsMessage::procInfo>(std::move(read));
        }
        out.emplace_hint(out.end(), pid, std::move(record));
        if (zombie) {
            zombies->push_back(pid);
        }
    }
    static const std::string kNoPath;
    for (auto& entry : out) {
        const ProcsMessage::procInfo& record = *entry.second;
        const auto parent = out.find(record.ppid);
        const std::string& parentPath = parent != out.end() ? parent->second->exePath : kNoPath;
        const int64_t parentStart = parent != out.end() ? parent->second->startTime : 0;
        if (record.parentStartTime == parentStart && record.parentExePath == parentPath) {
            continue;
        }
        // Only this table holds a record read now; one kept from `previous` is copied.
        if (entry.second.use_count() != 1) {
            entry.second = std::make_shared<ProcsMessage::procInfo>(record);
        }
        entry.second->parentExePath = parentPath;
        entry.second->parentStartTime = parentStart;
    }
    if (errorCount_ > 0) {
        // The same unreadable file every few seconds is said once; later repeats go to debug.
        const std::string text =
            "process snapshot: " + std::to_string(errorCount_) + " read errors, the first: " + firstError_;
        if (firstError_ != lastLoggedError_) {
            HOST_MODULE_LOG_ERROR(kProcessCollectModuleName, text);
            lastLoggedError_ = firstError_;
        } else {
            HOST_MODULE_LOG_DEBUG(kProcessCollectModuleName, text);
        }
    }
    return true;
}

}  // namespace Engine
