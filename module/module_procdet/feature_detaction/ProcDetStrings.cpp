#include "feature_detaction/ProcDetStrings.h"

#include <sys/stat.h>

#include <algorithm>

#include "ProcDetLog.h"
#include "ProcDetMetrics.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {

// Log lines and CPU governor calls name the class, not this file.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detaction/ProcDetStrings";

}  // namespace

namespace {

constexpr const char* kTaskName = "detaction_full_task";

// Distance between two seconds, in either direction.
time_t Distance(time_t a, time_t b) {
    return a > b ? a - b : b - a;
}

std::string JoinKeywords(const std::set<std::string>& found) {
    std::string joined;
    for (const std::string& keyword : found) {
        if (!joined.empty()) {
            joined += ',';
        }
        joined += keyword;
    }
    return joined;
}

bool SameTime(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// The change time moves on every write, chmod, chown or utimes, so with the device,
// inode, size and modification time it tells that the header is as it was.
bool SameFile(const ProcDetStrings::STRINGS_INFO& info, const struct stat& st) {
    return info.identityKnown && info.device == st.st_dev && info.inode == st.st_ino &&
           SameTime(info.modified, st.st_mtim) && SameTime(info.changed, st.st_ctim);
}

// A file changed within the last second may change again without its coarse
// timestamps moving, so it is only remembered once it has been quiet for longer.
void RememberFile(ProcDetStrings::STRINGS_INFO& info, const struct stat& st, time_t now) {
    info.identityKnown = st.st_ctim.tv_sec < now - 1;
    info.device = st.st_dev;
    info.inode = st.st_ino;
    info.modified = st.st_mtim;
    info.changed = st.st_ctim;
}

}  // namespace

void ProcDetStrings::Init(const std::set<std::string>& newKeywords, long newMaxFileSize,
                          unsigned int newFlagMask, Poco::Logger* newLogger) {
    maxFileSize = newMaxFileSize;
    logger = newLogger;
    flagMask = newFlagMask;
    if (&newKeywords != &keywords) {
        keywords = newKeywords;
    }
    for (auto it = keywords.begin(); it != keywords.end();) {
        if (it->size() > kMaxKeywordLength) {
            // The overlap kept across a cut of a long string must fit the carry area.
            // Init runs every cycle; the task logs such keywords once, when it takes its policy.
            it = keywords.erase(it);
            continue;
        }
        minKeywordLen = std::min<uint64_t>(minKeywordLen, it->size());
        maxKeywordLen = std::max<uint64_t>(maxKeywordLen, it->size());
        ++it;
    }

    matcher.Build(keywords);
    selected.assign(keywords.size(), 0);
    found.assign(keywords.size(), 0);
}

std::string ProcDetStrings::GetName() {
    return "strings";
}

bool ProcDetStrings::Prepare() {
    return true;
}

bool ProcDetStrings::CheckProcess(ProcRecord proc, unsigned int& flags, NumDetails& /*numDetails*/,
                                  StrDetails& strDetails) {
    PROCDET_PACE_CPU(kTaskName);
    if ((flags & flagMask) == 0 || !proc) {
        return true;
    }
    const bool running = true;

    std::string exeFile;
    struct stat exeStat;
    const bool deleted = (flags & PROC_DELETED) != 0;
    if (deleted) {
        // The link still reads the deleted file's content.
        exeFile = SDK::ProcessUtils::GetProcessFilePath(proc->pid, "exe");
    } else {
        if (stat(proc->exePath.c_str(), &exeStat) != 0) {
            PROCDET_ERROR(logger, "get stat of [%s] failed.", proc->exePath);
            return true;
        }
        if (static_cast<int64_t>(exeStat.st_size) > maxFileSize) {
            PROCDET_DEBUG(logger, "str [%s] size:%lu > %lu", proc->exePath,
                          static_cast<unsigned long>(exeStat.st_size),
                          static_cast<unsigned long>(maxFileSize));
            return true;
        }
        exeFile = proc->exePath;
    }

    std::string result;
    if (MatchFile(exeFile, deleted, running, deleted ? nullptr : &exeStat, result) && !result.empty()) {
        flags |= STRINGS;
        strDetails.insert({kDetailStrings, result});
        PROCDET_DEBUG(logger, "Strings pid:%d path:%s str:%s", proc->pid, proc->exePath, result);
    }
    if ((flags & STRINGS) != 0) {
        return true;
    }

    std::set<std::string> files;
    if (!ParseMaps(proc->pid, running, files)) {
        return true;
    }
    for (const std::string& file : files) {
        if (!running) {
            break;
        }
        if (file == proc->exePath) {
            continue;
        }
        PROCDET_DEBUG(logger, "try to check SOFILE:[%s]", file);
        std::string soResult;
        if (MatchFile(file, false, running, nullptr, soResult) && !soResult.empty()) {
            flags |= STRINGS;
            strDetails.insert({kDetailStrings, soResult});
            strDetails.insert({kDetailStringsSo, file});
            PROCDET_DEBUG(logger, "SoStrings pid:%d path:%s str:%s", proc->pid, file, soResult);
            break;
        }
        PROCDET_PACE_CPU(kTaskName);
    }
    return true;
}

bool ProcDetStrings::MatchStrings(std::string path, bool skipSizeCheck, const bool& running,
                                  std::string& result) {
    return MatchFile(path, skipSizeCheck, running, nullptr, result);
}

bool ProcDetStrings::MatchFile(const std::string& path, bool skipSizeCheck, const bool& running,
                               const struct stat* known, std::string& result) {
    const time_t now = time(nullptr);
    long size = 0;
    struct stat st;
    if (!skipSizeCheck) {
        if (known == nullptr) {
            if (stat(path.c_str(), &st) != 0) {
                PROCDET_DEBUG(logger, "get stat of [%s] failed.", path);
                return false;
            }
            known = &st;
        }
        if (!PassesStatChecks(path, *known, size)) {
            return false;
        }
    }

    auto entry = stringsInfoMap.find(path);
    const bool cached =
        entry != stringsInfoMap.end() && entry->second.checked && entry->second.fileSize == size;
    // The header is read again only when the file may have changed since it was
    // last found to be ELF: a cached file that stat shows untouched costs that stat
    // and this lookup alone.
    bool headerVerified = false;
    if (!skipSizeCheck) {
        if (cached && SameFile(entry->second, *known)) {
            headerVerified = true;
        } else if (!PassesHeaderCheck(path, headerVerified)) {
            return false;
        }
    }
    ProcDetMetrics::CountStringsCache(cached);
    if (cached) {
        entry->second.lastAccess = now;
        if (headerVerified) {
            RememberFile(entry->second, *known, now);
        }
        result = entry->second.matchResult;
        return true;
    }
    if (entry == stringsInfoMap.end()) {
        if (stringsInfoMap.size() >= kMaxCacheEntries) {
            PROCDET_DEBUG(logger, "strings cache is too match. %d", static_cast<int>(stringsInfoMap.size()));
            return false;
        }
        STRINGS_INFO fresh;
        fresh.skipSizeCheck = skipSizeCheck;
        fresh.fileSize = size;
        fresh.lastAccess = now;
        auto inserted = stringsInfoMap.emplace(path, fresh);
        if (!inserted.second) {
            PROCDET_ERROR(logger, "insert into stringsInfoMap failed. filepath:%s", path);
            return false;
        }
        entry = inserted.first;
    }

    // A size that differs from the entry's means the file changed: read it again,
    // every time, until Finish evicts the entry and a new one records the size.
    std::set<std::string> found;
    if (!Strings(path, running, found)) {
        return false;
    }
    entry->second.checked = true;
    entry->second.matchResult = JoinKeywords(found);
    if (headerVerified) {
        RememberFile(entry->second, *known, now);
    } else {
        entry->second.identityKnown = false;
    }
    PROCDET_DEBUG(logger, "CHECK file %s str match %lu", path, static_cast<unsigned long>(found.size()));
    entry->second.lastAccess = now;
    result = entry->second.matchResult;
    return true;
}

void ProcDetStrings::Finish() {
    const time_t now = time(nullptr);
    if (Distance(now, lastCleanTime) <= kCleanInterval) {
        return;
    }
    lastCleanTime = now;
    for (auto it = stringsInfoMap.begin(); it != stringsInfoMap.end();) {
        if (Distance(now, it->second.lastAccess) > kEntryLifetime) {
            it = stringsInfoMap.erase(it);
        } else {
            ++it;
        }
    }
    PROCDET_DEBUG(logger, "clean stringsInfoMap size=%lu", static_cast<unsigned long>(stringsInfoMap.size()));
}

}  // namespace Engine
