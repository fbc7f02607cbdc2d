#pragma once

#include <sys/types.h>

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "ProcFsReader.h"
#include "collect/ProcsFullTask.h"

namespace Engine {

// Finds the processes whose executable link would read differently now than
// their records say, although the kernel sent no event: the file was deleted
// (the link then reads "<path> (deleted)"), replaced (a package upgrade renames
// a new file over it, which deletes the old one) or moved. It remembers the file
// each process runs (device and inode through /proc/PID/exe, taken once per
// process and program) and compares it with the file now at the recorded path,
// statting each distinct path once per pass however many processes run it. A
// process whose file is no longer at its path is a suspect, whose link is to be
// read again; so is one whose file cannot be told, such as a process of another
// mount namespace, whose path names another file or none here.
class ExecutableWatch {
public:
    explicit ExecutableWatch(const std::string& procRoot);

    // Puts into `suspects` the pids of `table` whose executable link should be
    // read again. `justRead`: pids whose records were read in this refresh; they
    // are current, and their files are taken at the next pass.
    void FindSuspects(const ProcsFullTask::ProcsMap& table, const std::unordered_set<int>& justRead,
                      std::vector<int>& suspects);
    // Forgets every process: after a rescan, which may follow lost exec events.
    void Clear() { running_.clear(); }

    size_t GetWatchedCount() const { return running_.size(); }

private:
    struct FileId {
        dev_t device = 0;
        ino_t inode = 0;
        bool operator==(const FileId& other) const { return device == other.device && inode == other.inode; }
    };
    struct Running {
        FileId file;
        unsigned long pass = 0;  // the last pass that saw the pid
    };

    ProcFsReader reader_;
    std::unordered_map<int, Running> running_;
    unsigned long pass_ = 0;
};

}  // namespace Engine
