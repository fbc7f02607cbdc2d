#pragma once

#include <Poco/Logger.h>

#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "feature_detaction/ProcDetStringsFiles.h"
#include "feature_detaction/ProcDetStringsMatcher.h"

namespace Engine {

// Reads a file 4 KiB at a time, cuts it into runs of graphic bytes and looks for
// the keywords in them, up to the size limit or until every keyword is found.
// Owns the keyword index and the working buffers of a scan, so one scanner runs
// one scan at a time.
class ProcDetStringsScanner {
public:
    static constexpr size_t kMaxKeywordLength = 4096;  // the overlap of a cut must fit the carry area
    static constexpr size_t kChunkSize = 4096;

    // Keywords longer than kMaxKeywordLength are dropped.
    void Init(const std::set<std::string>& keywords, int64_t maxFileSize, Poco::Logger* logger);

    bool Strings(const std::string& path, std::set<std::string>& matched);
    void CheckFileContent(std::set<std::string>& matched, FILE* file, std::set<std::string>& remaining);
    bool CheckStr(char* data, size_t length, int& counter, std::set<std::string>& remaining,
                  char** openString, std::set<std::string>& matched);
    bool MatchKeywords(const char* text, size_t length, std::set<std::string>& remaining,
                       std::set<std::string>& matched, int& counter);

private:
    std::set<std::string> keywords_;
    int64_t maxFileSize_ = ProcDetStringsFiles::kDefaultMaxFileSize;
    // Never reset by Init: they describe every keyword set ever given.
    uint64_t minKeywordLen_ = 1024;
    uint64_t maxKeywordLen_ = 0;
    Poco::Logger* logger_ = nullptr;

    // Search index over `keywords_`, rebuilt by Init.
    ProcDetStringsMatcher matcher_;
    // MatchKeywords' scratch, kept to spare an allocation per string: the keywords
    // of one group of tests, and the index's selection and findings by keyword rank.
    static constexpr uint32_t kNotIndexed = UINT32_MAX;
    struct GroupEntry {
        std::set<std::string>::iterator keyword;  // in `remaining`
        uint32_t rank;                            // in `keywords_`, or kNotIndexed
        uint32_t slot;                            // in `ranked_`
        bool hit;
    };
    // The governor is consulted once per this many keyword tests, so a group never holds more.
    static constexpr size_t kTestsPerPace = 11;
    // Filled field by field: building whole entries on the stack and copying them in
    // cost more than the search itself (stalled store forwarding).
    GroupEntry group_[kTestsPerPace];
    size_t groupSize_ = 0;
    // How many tests fit in the group before the governor's turn.
    static size_t RoomBeforePace(int counter);
    void AddToGroup(std::set<std::string>::iterator keyword, uint32_t rank, uint32_t slot) {
        GroupEntry& entry = group_[groupSize_++];
        entry.keyword = keyword;
        entry.rank = rank;
        entry.slot = slot;
        entry.hit = false;
    }

    // `remaining` as CheckFileContent scans with it, each keyword with its rank, in the
    // set's order: MatchKeywords walks this instead of looking every remaining keyword
    // up in `keywords_` again for every string. Valid while `rankedSet_` points at the
    // set being scanned and both hold as many keywords.
    struct RankedKeyword {
        std::set<std::string>::iterator keyword;
        size_t size;
        uint32_t rank;
    };
    const std::set<std::string>* rankedSet_ = nullptr;
    std::vector<RankedKeyword> ranked_;
    void RankRemaining(std::set<std::string>& remaining);
    // One group of tests in a single pass of the index; hits move from `remaining` to `matched`.
    void TestGroup(const char* text, size_t searchable, std::set<std::string>& remaining,
                   std::set<std::string>& matched);
    // Counts the group's tests and consults the governor every kTestsPerPace of them.
    void CountGroup(int& counter);
    void MatchRanked(const char* text, size_t length, size_t searchable, std::set<std::string>& remaining,
                     std::set<std::string>& matched, int& counter);
    std::vector<char> selected_;
    std::vector<char> found_;
};

}  // namespace Engine
