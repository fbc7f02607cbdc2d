#include "ExecutableWatch.h"

#include <sys/stat.h>

#include <string_view>

namespace Engine {

ExecutableWatch::ExecutableWatch(const std::string& procRoot) : reader_(procRoot) {}

void ExecutableWatch::FindSuspects(const ProcsFullTask::ProcsMap& table,
                                   const std::unordered_set<int>& justRead, std::vector<int>& suspects) {
    suspects.clear();
    ++pass_;
    // The file at each path, statted once per pass: found (true) and which.
    std::unordered_map<std::string_view, std::pair<bool, FileId>> atPath;
    for (const auto& [pid, record] : table) {
        // No link to compare: kernel threads, zombies, links we may not read.
        if (!record || record->exePath.empty()) {
            continue;
        }
        if (justRead.count(pid) != 0) {
            running_.erase(pid);  // it may have executed another program
            continue;
        }
        auto running = running_.find(pid);
        if (running == running_.end()) {
            FileId file;
            if (reader_.StatExe(pid, file.device, file.inode) != 0) {
                suspects.push_back(pid);  // gone since, or not to be told: read the link
                continue;
            }
            running = running_.emplace(pid, Running{file, 0}).first;
        }
        running->second.pass = pass_;
        // The records outlive the pass, so their paths can key the map.
        const auto [at, added] = atPath.try_emplace(record->exePath, false, FileId());
        if (added) {
            struct stat info {};
            if (::stat(record->exePath.c_str(), &info) == 0) {
                at->second = {true, FileId{info.st_dev, info.st_ino}};
            }
        }
        if (!at->second.first || !(at->second.second == running->second.file)) {
            suspects.push_back(pid);
        }
    }
    for (auto it = running_.begin(); it != running_.end();) {
        if (it->second.pass != pass_) {
            it = running_.erase(it);  // gone from the table
        } else {
            ++it;
        }
    }
}

}  // namespace Engine
