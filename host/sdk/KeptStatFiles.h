#pragma once

// Reads /proc/PID/stat through files kept open between calls. Internal to libsdk.

#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>

namespace SDK {

// What the library keeps of /proc/PID/stat once the text is gone.
struct ProcStat {
    std::string comm;
    char state = '?';
    int ppid = 0;
    unsigned long long utime = 0;  // clock ticks
    unsigned long long stime = 0;
    long long startTime = 0;  // clock ticks since boot
};

// The CPU-usage sampler and the liveness checks read every process's stat once
// per detection cycle; a read of a file kept open costs about half of an
// open/read/close. An open /proc/PID/stat stays bound to the process it was
// opened for: once that process is reaped, its reads fail with ESRCH even when
// the pid has been given to a new process. Such a file is closed and the pid's
// current stat opened afresh, so a caller sees the new process (and tells it
// apart by its start time), never stale text.
//
// Files are kept only under a real procfs root, at most GetBudget() of them (the
// soft RLIMIT_NOFILE is raised within the hard limit once); past the budget a
// read is a plain open/read/close. Files not read for a few minutes are closed.
// Safe from any thread (one lock; a read is a few microseconds).
class KeptStatFiles {
public:
    static KeptStatFiles& Instance();

    // Reads and parses the stat of `pid` under ProcessUtils::GetProcRoot().
    bool Read(long pid, ProcStat& out);

    size_t GetBudget() const { return budget_; }
    size_t GetOpenCount();

    KeptStatFiles(const KeptStatFiles&) = delete;
    KeptStatFiles& operator=(const KeptStatFiles&) = delete;

private:
    struct Kept {
        int fd;
        long long lastReadS;
    };

    KeptStatFiles();
    ~KeptStatFiles();

    // Closes everything when the proc root changed since the last call.
    void FollowRoot(const std::string& root);
    void CloseIdle(long long nowS);
    void CloseAll();

    std::mutex mutex_;
    std::unordered_map<long, Kept> files_;
    std::string root_;
    bool keep_ = false;  // the root is a procfs
    size_t budget_ = 0;
    long long lastSweepS_ = 0;
};

}  // namespace SDK
