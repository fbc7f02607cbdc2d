#pragma once

// What the benchmarks that run the real agent read of it and of the host.

#include <dirent.h>
#include <sys/types.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace BenchSupport {

// VmRSS of `pid` in KiB; -1 when the process is gone.
inline long ReadRssKiB(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return -1;
}

// Processes on the host (numeric entries of /proc); -1 when /proc cannot be listed.
inline int CountProcesses() {
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        return -1;
    }
    int count = 0;
    while (const dirent* entry = readdir(proc)) {
        count += entry->d_name[0] >= '0' && entry->d_name[0] <= '9' ? 1 : 0;
    }
    closedir(proc);
    return count;
}

}  // namespace BenchSupport
