#pragma once

#include <Poco/Logger.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "feature_detaction/ProcDetBase.h"
#include "feature_detaction/ProcDetStringsMatcher.h"

namespace Engine {

class ProcDetStringsPeer;  // test access to the cache and the clean stamp

// Looks for keywords among the printable strings of the executable of a process
// that an earlier detector flagged (in practice for high CPU), then of the files
// mapped into it. Scan results are cached per file path, so the same binaries and
// libraries seen cycle after cycle cost one stat and a lookup while stat shows them untouched.
class ProcDetStrings : public ProcDetBase {
public:
    // One cached scan.
    struct STRINGS_INFO {
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

    static constexpr int64_t kDefaultMaxFileSize = 0x200000;
    static constexpr size_t kMaxPathLength = 4096;
    static constexpr size_t kMaxKeywordLength = 4096;  // the overlap of a cut must fit the carry area
    static constexpr size_t kChunkSize = 4096;
    static constexpr size_t kReadBlock = 64 * 1024;  // what one read of a scanned file asks for
    static constexpr size_t kMaxCacheEntries = 200;
    static constexpr time_t kCleanInterval = 599;
    static constexpr time_t kEntryLifetime = 1800;

    ProcDetStrings() = default;
    ~ProcDetStrings() override = default;
    ProcDetStrings(const ProcDetStrings&) = delete;
    ProcDetStrings& operator=(const ProcDetStrings&) = delete;

    // Detector cycle and cache (ProcDetStrings.cpp).
    void Init(const std::set<std::string>& keywords, long maxFileSize, unsigned int flagMask,
              Poco::Logger* logger);
    std::string GetName() override;
    bool Prepare() override;
    bool CheckProcess(ProcRecord proc, unsigned int& flags, NumDetails& numDetails,
                      StrDetails& strDetails) override;
    void Finish() override;
    bool MatchStrings(std::string path, bool skipSizeCheck, const bool& running, std::string& result);

    // File selection (ProcDetStringsFiles.cpp).
    bool NeedToCheck(const std::string& path, long& size) const;
    bool IsElf(const std::string& path, bool& isElf) const;
    bool ParseMaps(int pid, const bool& running, std::set<std::string>& files) const;
    // The parsing half of ParseMaps, fed from any stream of maps lines.
    void ParseMapsStream(FILE* maps, const bool& running, std::set<std::string>& files) const;
    bool IsValidFilePath(const char* text, std::string& path) const;

    // Extraction and matching (ProcDetStringsScan.cpp).
    bool Strings(const std::string& path, const bool& running, std::set<std::string>& matched) const;
    void CheckFileContent(std::set<std::string>& matched, FILE* file, std::set<std::string>& remaining) const;
    bool CheckStr(char* data, size_t length, int& counter, std::set<std::string>& remaining,
                  char** openString, std::set<std::string>& matched) const;
    bool MatchKeywords(const char* text, size_t length, std::set<std::string>& remaining,
                       std::set<std::string>& matched, int& counter) const;

private:
    friend class ProcDetStringsPeer;

    // MatchStrings with the caller's stat of `path` when it has one, to spare another.
    bool MatchFile(const std::string& path, bool skipSizeCheck, const bool& running, const struct stat* known,
                   std::string& result);
    // NeedToCheck's two halves: type and size from a stat, then the ELF header;
    // `verified` tells whether the header was read and found to be ELF.
    bool PassesStatChecks(const std::string& path, const struct stat& st, long& size) const;
    bool PassesHeaderCheck(const std::string& path, bool& verified) const;

    // Resolves `path` (at most kMaxPathLength characters) with realpath.
    static bool ResolvePath(const std::string& path, std::string& resolved);
    // Opens a resolved path for reading without ever blocking on a FIFO; null when
    // it cannot be opened.
    static FILE* OpenForReading(const std::string& resolved);

    std::set<std::string> keywords;
    int64_t maxFileSize = kDefaultMaxFileSize;
    uint32_t flagMask = 0;
    // Never reset by Init: they describe every keyword set ever given.
    uint64_t minKeywordLen = 1024;
    uint64_t maxKeywordLen = 0;
    std::map<std::string, STRINGS_INFO> stringsInfoMap;
    time_t lastCleanTime = 0;
    Poco::Logger* logger = nullptr;

    // Search index over `keywords`, rebuilt by Init.
    ProcDetStringsMatcher matcher;
    // MatchKeywords' scratch, kept to spare an allocation per string: the keywords
    // of one group of tests, and the index's selection and findings by keyword rank.
    static constexpr uint32_t kNotIndexed = UINT32_MAX;
    struct GroupEntry {
        std::set<std::string>::iterator keyword;  // in `remaining`
        uint32_t rank;                            // in `keywords`, or kNotIndexed
        uint32_t slot;                            // in `ranked`
        bool hit;
    };
    // The governor is consulted once per this many keyword tests, so a group never holds more.
    static constexpr size_t kTestsPerPace = 11;
    // Filled field by field: building whole entries on the stack and copying them in
    // cost more than the search itself (stalled store forwarding).
    mutable GroupEntry group[kTestsPerPace];
    mutable size_t groupSize = 0;
    // How many tests fit in the group before the governor's turn.
    static size_t RoomBeforePace(int counter);
    void AddToGroup(std::set<std::string>::iterator keyword, uint32_t rank, uint32_t slot) const {
        GroupEntry& entry = group[groupSize++];
        entry.keyword = keyword;
        entry.rank = rank;
        entry.slot = slot;
        entry.hit = false;
    }

    // `remaining` as CheckFileContent scans with it, each keyword with its rank, in the
    // set's order: MatchKeywords walks this instead of looking every remaining keyword
    // up in `keywords` again for every string. Valid while `rankedSet` points at the
    // set being scanned and both hold as many keywords.
    struct RankedKeyword {
        std::set<std::string>::iterator keyword;
        size_t size;
        uint32_t rank;
    };
    mutable const std::set<std::string>* rankedSet = nullptr;
    mutable std::vector<RankedKeyword> ranked;
    void RankRemaining(std::set<std::string>& remaining) const;
    // One group of tests in a single pass of the index; hits move from `remaining` to `matched`.
    void TestGroup(const char* text, size_t searchable, std::set<std::string>& remaining,
                   std::set<std::string>& matched) const;
    // Counts the group's tests and consults the governor every kTestsPerPace of them.
    void CountGroup(int& counter) const;
    void MatchRanked(const char* text, size_t length, size_t searchable, std::set<std::string>& remaining,
                     std::set<std::string>& matched, int& counter) const;
    mutable std::vector<char> selected;
    mutable std::vector<char> found;
};

}  // namespace Engine
