#include "feature_detaction/ProcDetStringsCache.h"

#include "ProcDetLog.h"

namespace Engine {

namespace {

// Log lines name the detector, whichever of its classes runs.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detaction/ProcDetStrings";

// Distance between two seconds, in either direction.
time_t Distance(time_t a, time_t b) {
    return a > b ? a - b : b - a;
}

bool SameTime(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// A file changed within the last second may change again without its coarse
// timestamps moving, so it is only remembered once it has been quiet for longer.
void RememberFile(ProcDetStringsCache::Entry& entry, const struct stat& st, time_t now) {
    entry.identityKnown = st.st_ctim.tv_sec < now - 1;
    entry.device = st.st_dev;
    entry.inode = st.st_ino;
    entry.modified = st.st_mtim;
    entry.changed = st.st_ctim;
}

}  // namespace

ProcDetStringsCache::Entry* ProcDetStringsCache::Find(const std::string& path) {
    const auto it = entries_.find(path);
    return it == entries_.end() ? nullptr : &it->second;
}

// The change time moves on every write, chmod, chown or utimes, so with the device,
// inode, size and modification time it tells that the header is as it was.
bool ProcDetStringsCache::Unchanged(const Entry& entry, const struct stat& st) {
    return entry.identityKnown && entry.device == st.st_dev && entry.inode == st.st_ino &&
           SameTime(entry.modified, st.st_mtim) && SameTime(entry.changed, st.st_ctim);
}

ProcDetStringsCache::Entry* ProcDetStringsCache::Add(const std::string& path, bool skipSizeCheck,
                                                     int64_t size, time_t now) {
    if (entries_.size() >= kMaxEntries) {
        PROCDET_DEBUG(logger_, "strings cache is too match. %d", static_cast<int>(entries_.size()));
        return nullptr;
    }
    Entry fresh;
    fresh.skipSizeCheck = skipSizeCheck;
    fresh.fileSize = size;
    fresh.lastAccess = now;
    const auto inserted = entries_.emplace(path, fresh);
    if (!inserted.second) {
        PROCDET_ERROR(logger_, "insert into stringsInfoMap failed. filepath:%s", path);
        return nullptr;
    }
    return &inserted.first->second;
}

void ProcDetStringsCache::Use(Entry& entry, const struct stat* verified, time_t now) {
    entry.lastAccess = now;
    if (verified != nullptr) {
        RememberFile(entry, *verified, now);
    }
}

void ProcDetStringsCache::Record(Entry& entry, const std::set<std::string>& found,
                                 const struct stat* verified, time_t now) {
    entry.checked = true;
    entry.matchResult.clear();
    for (const std::string& keyword : found) {
        if (!entry.matchResult.empty()) {
            entry.matchResult += ',';
        }
        entry.matchResult += keyword;
    }
    if (verified != nullptr) {
        RememberFile(entry, *verified, now);
    } else {
        entry.identityKnown = false;
    }
    entry.lastAccess = now;
}

void ProcDetStringsCache::Clean(time_t now) {
    if (Distance(now, lastCleanTime_) <= kCleanInterval) {
        return;
    }
    lastCleanTime_ = now;
    for (auto it = entries_.begin(); it != entries_.end();) {
        if (Distance(now, it->second.lastAccess) > kEntryLifetime) {
            it = entries_.erase(it);
        } else {
            ++it;
        }
    }
    PROCDET_DEBUG(logger_, "clean stringsInfoMap size=%lu", static_cast<unsigned long>(entries_.size()));
}

}  // namespace Engine
