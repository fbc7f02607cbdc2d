#pragma once

#include <Poco/Logger.h>
#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <set>
#include <string>

namespace Engine {

// The strings detector's scan results by file path, so that the same binaries and
// libraries seen cycle after cycle cost one stat and a lookup while stat shows them
// untouched. Bounded: a full cache refuses new paths rather than evicting others.
class ProcDetStringsCache {
public:
    // One cached scan.
    struct Entry {
        bool checked = false;        // a scan completed; until then no result
        bool skipSizeCheck = false;  // made for a path that bypassed NeedToCheck
        int64_t fileSize = 0;        // size when the entry was made
        std::string matchResult;     // keywords found, sorted, joined with ","
        time_t lastAccess = 0;       // second of creation or last use
        // The file as stat saw it when its header was last found to be ELF; while it
        // is unchanged a hit needs no header read. Unset for a link path.
        bool identityKnown = false;
        dev_t device = 0;
        ino_t inode = 0;
        timespec modified{};
        timespec changed{};
    };

    static constexpr size_t kMaxEntries = 200;
    static constexpr time_t kCleanInterval = 599;
    static constexpr time_t kEntryLifetime = 1800;

    void SetLogger(Poco::Logger* logger) { logger_ = logger; }

    // The entry of `path`, or null.
    Entry* Find(const std::string& path);
    // Its result stands for a file of `size` bytes: a scan completed at that size.
    static bool Holds(const Entry& entry, int64_t size) { return entry.checked && entry.fileSize == size; }
    // stat shows the file that was last found to be ELF, untouched since.
    static bool Unchanged(const Entry& entry, const struct stat& st);
    // A new entry without a result; null, logged, when the cache is full.
    Entry* Add(const std::string& path, bool skipSizeCheck, int64_t size, time_t now);
    // A hit; `verified` is the file's stat when its header was just found to be ELF.
    void Use(Entry& entry, const struct stat* verified, time_t now);
    // A completed scan and what it found; `verified` as for Use.
    void Record(Entry& entry, const std::set<std::string>& found, const struct stat* verified, time_t now);
    // Drops entries unused for kEntryLifetime, at most once per kCleanInterval.
    void Clean(time_t now);

    size_t Size() const { return entries_.size(); }

private:
    std::map<std::string, Entry> entries_;
    time_t lastCleanTime_ = 0;
    Poco::Logger* logger_ = nullptr;
};

}  // namespace Engine
