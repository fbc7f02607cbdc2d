#include "KeptProcessFiles.h"

#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "ProcRecordParser.h"
#include "sdk/ProcParsers.h"

namespace Engine {

namespace {

// Processes whose files may be kept. Two files each; the kept stat files of
// libsdk and everything else the agent opens share the same limit (which libsdk
// raises once), so these take at most an eighth of it as it is now.
size_t ProcessBudget() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return 0;
    }
    if (limit.rlim_cur == RLIM_INFINITY) {
        return KeptProcessFiles::kMaxKeptProcesses;
    }
    return std::min<size_t>(KeptProcessFiles::kMaxKeptProcesses, static_cast<size_t>(limit.rlim_cur / 16));
}

bool IsProcfs(const std::string& root) {
    struct statfs info {};
    return statfs(root.c_str(), &info) == 0 && info.f_type == PROC_SUPER_MAGIC;
}

// pread at 0 makes procfs generate the text again. 0 or errno.
template <size_t N>
int ReadAt0(int fd, ProcFsText<N>& text) {
    ssize_t got = 0;
    do {
        got = ::pread(fd, text.data, sizeof text.data, 0);
    } while (got < 0 && errno == EINTR);
    text.size = got > 0 ? static_cast<size_t>(got) : 0;
    text.error = got < 0 ? errno : 0;
    return text.error;
}

}  // namespace

KeptProcessFiles::KeptProcessFiles(const std::string& procRoot)
    : reader_(procRoot), keep_(IsProcfs(procRoot)) {}

KeptProcessFiles::~KeptProcessFiles() {
    for (auto& entry : kept_) {
        Close(entry.second);
    }
}

void KeptProcessFiles::Close(Files& files) {
    for (int* fd : {&files.status, &files.cmdline}) {
        if (*fd >= 0) {
            ::close(*fd);
            *fd = -1;
        }
    }
}

bool KeptProcessFiles::ReadBoth(const Files& files, ProcFsBuffers& buffers) {
    return ReadAt0(files.status, buffers.status) == 0 && ReadAt0(files.cmdline, buffers.cmdline) == 0;
}

bool KeptProcessFiles::Open(int pid, int64_t startTime, Files& files, ProcFsBuffers& buffers) const {
    files.status = reader_.OpenFile(pid, "status");
    files.cmdline = files.status >= 0 ? reader_.OpenFile(pid, "cmdline") : -1;
    if (files.cmdline < 0) {
        return false;
    }
    // Opened before the stat read: if that still shows the process, so did they.
    SDK::ProcStatFields stat;
    return reader_.Read(pid, ProcFsReader::kStat, buffers) && buffers.stat.error == 0 &&
           SDK::ParseStat(buffers.stat.View(), stat) && stat.startTime == startTime;
}

bool KeptProcessFiles::Read(int pid, int64_t startTime, ProcFsBuffers& buffers) {
    const auto kept = kept_.find(pid);
    if (kept != kept_.end()) {
        if (ReadBoth(kept->second, buffers)) {
            return true;
        }
        // Reaped (ESRCH): the pid is looked up afresh below.
        Close(kept->second);
        kept_.erase(kept);
    }
    Files files;
    if (!Open(pid, startTime, files, buffers) || !ReadBoth(files, buffers)) {
        Close(files);
        return false;
    }
    if (keep_ && kept_.size() < ProcessBudget()) {
        kept_.emplace(pid, files);
    } else {
        Close(files);
    }
    return true;
}

void KeptProcessFiles::Retain(const std::unordered_set<int>& pids) {
    for (auto it = kept_.begin(); it != kept_.end();) {
        if (pids.count(it->first) == 0) {
            Close(it->second);
            it = kept_.erase(it);
        } else {
            ++it;
        }
    }
}

}  // namespace Engine
