#include "feature_detaction/ProcDetStrings.h"

#include <sys/stat.h>

#include "ProcDetLog.h"
#include "ProcDetMetrics.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {

// Log lines and CPU governor calls name the class, not this file.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detaction/ProcDetStrings";
constexpr const char* kTaskName = "detaction_full_task";

}  // namespace

void ProcDetStrings::Init(const std::set<std::string>& keywords, long maxFileSize, unsigned int flagMask,
                          Poco::Logger* logger) {
    files_.Configure(maxFileSize, logger);
    scanner_.Init(keywords, maxFileSize, logger);
    cache_.SetLogger(logger);
    flagMask_ = flagMask;
    logger_ = logger;
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
    if ((flags & flagMask_) == 0 || !proc) {
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
            PROCDET_ERROR(logger_, "get stat of [%s] failed.", proc->exePath);
            return true;
        }
        if (static_cast<int64_t>(exeStat.st_size) > files_.MaxFileSize()) {
            PROCDET_DEBUG(logger_, "str [%s] size:%lu > %lu", proc->exePath,
                          static_cast<unsigned long>(exeStat.st_size),
                          static_cast<unsigned long>(files_.MaxFileSize()));
            return true;
        }
        exeFile = proc->exePath;
    }

    std::string result;
    if (MatchFile(exeFile, deleted, running, deleted ? nullptr : &exeStat, result) && !result.empty()) {
        flags |= STRINGS;
        strDetails.insert({kDetailStrings, result});
        PROCDET_DEBUG(logger_, "Strings pid:%d path:%s str:%s", proc->pid, proc->exePath, result);
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
        PROCDET_DEBUG(logger_, "try to check SOFILE:[%s]", file);
        std::string soResult;
        if (MatchFile(file, false, running, nullptr, soResult) && !soResult.empty()) {
            flags |= STRINGS;
            strDetails.insert({kDetailStrings, soResult});
            strDetails.insert({kDetailStringsSo, file});
            PROCDET_DEBUG(logger_, "SoStrings pid:%d path:%s str:%s", proc->pid, file, soResult);
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

bool ProcDetStrings::MatchFile(const std::string& path, bool skipSizeCheck, const bool& /*running*/,
                               const struct stat* known, std::string& result) {
    const time_t now = time(nullptr);
    long size = 0;
    struct stat st;
    if (!skipSizeCheck) {
        if (known == nullptr) {
            if (stat(path.c_str(), &st) != 0) {
                PROCDET_DEBUG(logger_, "get stat of [%s] failed.", path);
                return false;
            }
            known = &st;
        }
        if (!files_.PassesStatChecks(path, *known, size)) {
            return false;
        }
    }

    ProcDetStringsCache::Entry* entry = cache_.Find(path);
    const bool cached = entry != nullptr && ProcDetStringsCache::Holds(*entry, size);
    // The header is read again only when the file may have changed since it was
    // last found to be ELF: a cached file that stat shows untouched costs that stat
    // and this lookup alone.
    bool headerVerified = false;
    if (!skipSizeCheck) {
        if (cached && ProcDetStringsCache::Unchanged(*entry, *known)) {
            headerVerified = true;
        } else if (!files_.PassesHeaderCheck(path, headerVerified)) {
            return false;
        }
    }
    ProcDetMetrics::CountStringsCache(cached);
    const struct stat* verified = headerVerified ? known : nullptr;
    if (cached) {
        cache_.Use(*entry, verified, now);
        result = entry->matchResult;
        return true;
    }
    if (entry == nullptr && (entry = cache_.Add(path, skipSizeCheck, size, now)) == nullptr) {
        return false;
    }

    // A size that differs from the entry's means the file changed: read it again,
    // every time, until Finish evicts the entry and a new one records the size.
    std::set<std::string> found;
    if (!scanner_.Strings(path, found)) {
        return false;
    }
    cache_.Record(*entry, found, verified, now);
    PROCDET_DEBUG(logger_, "CHECK file %s str match %lu", path, static_cast<unsigned long>(found.size()));
    result = entry->matchResult;
    return true;
}

void ProcDetStrings::Finish() {
    cache_.Clean(time(nullptr));
}

}  // namespace Engine
