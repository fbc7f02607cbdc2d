#pragma once

#include <Poco/Logger.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <set>
#include <string>

#include "feature_detaction/ProcDetBase.h"
#include "feature_detaction/ProcDetStringsCache.h"
#include "feature_detaction/ProcDetStringsFiles.h"
#include "feature_detaction/ProcDetStringsScanner.h"

namespace Engine {

// Looks for keywords among the printable strings of the executable of a process
// that an earlier detector flagged (in practice for high CPU), then of the files
// mapped into it. Which files are read is ProcDetStringsFiles' job, the reading and
// matching ProcDetStringsScanner's, and the results are kept per path in
// ProcDetStringsCache; this class runs them for one process at a time.
class ProcDetStrings : public ProcDetBase {
public:
    using STRINGS_INFO = ProcDetStringsCache::Entry;

    static constexpr int64_t kDefaultMaxFileSize = ProcDetStringsFiles::kDefaultMaxFileSize;
    static constexpr size_t kMaxKeywordLength = ProcDetStringsScanner::kMaxKeywordLength;

    ProcDetStrings() = default;
    ~ProcDetStrings() override = default;
    ProcDetStrings(const ProcDetStrings&) = delete;
    ProcDetStrings& operator=(const ProcDetStrings&) = delete;

    // Detector cycle and cache.
    void Init(const std::set<std::string>& keywords, long maxFileSize, unsigned int flagMask,
              Poco::Logger* logger);
    std::string GetName() override;
    bool Prepare() override;
    bool CheckProcess(ProcRecord proc, unsigned int& flags, NumDetails& numDetails,
                      StrDetails& strDetails) override;
    void Finish() override;
    bool MatchStrings(std::string path, bool skipSizeCheck, const bool& running, std::string& result);

    // File selection.
    bool NeedToCheck(const std::string& path, long& size) const { return files_.NeedToCheck(path, size); }
    bool IsElf(const std::string& path, bool& isElf) const { return files_.IsElf(path, isElf); }
    bool ParseMaps(int pid, const bool& running, std::set<std::string>& files) const {
        return files_.ParseMaps(pid, running, files);
    }
    void ParseMapsStream(FILE* maps, const bool& running, std::set<std::string>& files) const {
        files_.ParseMapsStream(maps, running, files);
    }
    bool IsValidFilePath(const char* text, std::string& path) const {
        return files_.IsValidFilePath(text, path);
    }

    // Extraction and matching. `running` is not consulted: a file once opened is read
    // to one of its stops.
    bool Strings(const std::string& path, const bool& /*running*/, std::set<std::string>& matched) const {
        return scanner_.Strings(path, matched);
    }
    void CheckFileContent(std::set<std::string>& matched, FILE* file,
                          std::set<std::string>& remaining) const {
        scanner_.CheckFileContent(matched, file, remaining);
    }
    bool CheckStr(char* data, size_t length, int& counter, std::set<std::string>& remaining,
                  char** openString, std::set<std::string>& matched) const {
        return scanner_.CheckStr(data, length, counter, remaining, openString, matched);
    }
    bool MatchKeywords(const char* text, size_t length, std::set<std::string>& remaining,
                       std::set<std::string>& matched, int& counter) const {
        return scanner_.MatchKeywords(text, length, remaining, matched, counter);
    }

private:
    // MatchStrings with the caller's stat of `path` when it has one, to spare another.
    bool MatchFile(const std::string& path, bool skipSizeCheck, const bool& running, const struct stat* known,
                   std::string& result);

    ProcDetStringsFiles files_;
    // The scanning operations are const to their callers; what a scan changes is the
    // scanner's working memory (its rank list and match buffers), never a result.
    mutable ProcDetStringsScanner scanner_;
    ProcDetStringsCache cache_;
    uint32_t flagMask_ = 0;
    Poco::Logger* logger_ = nullptr;
};

}  // namespace Engine
