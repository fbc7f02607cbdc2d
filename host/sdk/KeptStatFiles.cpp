#include "KeptStatFiles.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/statfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "sdk/ProcParsers.h"
#include "sdk/ProcessUtils.h"

namespace SDK {

namespace {

bool StatFromText(std::string_view text, ProcStat& out) {
    ProcStatFields fields;
    if (!ParseStat(text, fields)) {
        return false;
    }
    out.comm.assign(fields.comm.data(), fields.comm.size());
    out.state = fields.state;
    out.ppid = fields.ppid;
    out.utime = fields.utime;
    out.stime = fields.stime;
    out.startTime = fields.startTime;
    return true;
}

// A file not read for this long belongs to a process nobody asks about any more.
constexpr long long kIdleCloseS = 300;
constexpr long long kSweepIntervalS = 60;
// Descriptors left for everything else the agent opens (sockets, logs, modules).
constexpr rlim_t kReservedFds = 1024;
constexpr size_t kMaxKept = 16384;
// A stat line is a few hundred bytes; a longer text is not /proc.
constexpr size_t kStatBytes = 4096;

long long CoarseNowS() {
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return static_cast<long long>(ts.tv_sec);
}

// Raises the soft limit on open files to the hard one (the kernel's default soft
// limit of 1,024 is there for select(), which the agent does not use) and
// returns how many files may be kept.
size_t RaiseFileLimit() {
    struct rlimit limit {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return 0;
    }
    if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < limit.rlim_max) {
        struct rlimit raised = limit;
        raised.rlim_cur = std::min<rlim_t>(limit.rlim_max, 1 << 20);
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0) {
            limit = raised;
        }
    }
    if (limit.rlim_cur == RLIM_INFINITY) {
        return kMaxKept;
    }
    const rlim_t available =
        limit.rlim_cur > 2 * kReservedFds ? limit.rlim_cur - kReservedFds : limit.rlim_cur / 2;
    return std::min<size_t>(kMaxKept, static_cast<size_t>(available));
}

// pread at 0 re-generates the text of a /proc file. 0 or errno.
int ReadAt0(int fd, char* buffer, size_t capacity, size_t& size) {
    ssize_t got = 0;
    do {
        got = pread(fd, buffer, capacity, 0);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
        return errno;
    }
    size = static_cast<size_t>(got);
    return 0;
}

}  // namespace

KeptStatFiles& KeptStatFiles::Instance() {
    // Never destroyed: readers may run on threads that outlive static destruction.
    static KeptStatFiles* instance = new KeptStatFiles();
    return *instance;
}

KeptStatFiles::KeptStatFiles() : budget_(RaiseFileLimit()), lastSweepS_(CoarseNowS()) {}

KeptStatFiles::~KeptStatFiles() {
    CloseAll();
}

void KeptStatFiles::CloseAll() {
    for (const auto& entry : files_) {
        close(entry.second.fd);
    }
    files_.clear();
}

void KeptStatFiles::FollowRoot(const std::string& root) {
    if (root == root_) {
        return;
    }
    CloseAll();
    root_ = root;
    // Files under a directory of test samples may be replaced; only procfs texts
    // are generated at each read.
    struct statfs info {};
    keep_ = statfs(root.c_str(), &info) == 0 && info.f_type == PROC_SUPER_MAGIC;
}

void KeptStatFiles::CloseIdle(long long nowS) {
    for (auto it = files_.begin(); it != files_.end();) {
        if (nowS - it->second.lastReadS >= kIdleCloseS) {
            close(it->second.fd);
            it = files_.erase(it);
        } else {
            ++it;
        }
    }
    lastSweepS_ = nowS;
}

size_t KeptStatFiles::GetOpenCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    return files_.size();
}

bool KeptStatFiles::Read(long pid, ProcStat& out) {
    if (pid <= 0) {
        return false;
    }
    char text[kStatBytes];
    size_t size = 0;
    std::lock_guard<std::mutex> lock(mutex_);
    FollowRoot(ProcessUtils::GetProcRoot());
    const long long nowS = CoarseNowS();
    if (nowS - lastSweepS_ >= kSweepIntervalS) {
        CloseIdle(nowS);
    }
    const auto kept = files_.find(pid);
    if (kept != files_.end()) {
        if (ReadAt0(kept->second.fd, text, sizeof text, size) == 0 && size > 0) {
            kept->second.lastReadS = nowS;
            return StatFromText(std::string_view(text, size), out);
        }
        // ESRCH: the process this file was opened for is gone; the pid may belong
        // to another one by now, which the open below finds.
        close(kept->second.fd);
        files_.erase(kept);
    }
    char path[64 + 4096];
    if (root_.size() > 4096 || std::snprintf(path, sizeof path, "%s/%ld/stat", root_.c_str(), pid) >=
                                   static_cast<int>(sizeof path)) {
        return false;
    }
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return false;
    }
    const bool read = ReadAt0(fd, text, sizeof text, size) == 0 && size > 0;
    if (read && keep_ && files_.size() < budget_) {
        files_.emplace(pid, Kept{fd, nowS});
    } else {
        close(fd);
    }
    return read && StatFromText(std::string_view(text, size), out);
}

}  // namespace SDK
