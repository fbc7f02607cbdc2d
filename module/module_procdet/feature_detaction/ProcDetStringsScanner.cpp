#include "feature_detaction/ProcDetStringsScanner.h"

#include <algorithm>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "ProcDetLog.h"
#include "feature_detaction/ProcDetStringsFiles.h"
#include "sdk/SecureC.h"

namespace Engine {

namespace {

// Log lines and CPU governor calls name the detector, whichever of its classes runs.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detaction/ProcDetStrings";
constexpr const char* kTaskName = "detaction_full_task";

inline bool IsGraphic(unsigned char byte) {
    return byte >= 0x21 && byte <= 0x7E;
}

// Bit i set when byte i of the 64 at `p` is graphic.
inline uint64_t GraphicMask(const char* p) {
#if defined(__SSE2__)
    // As signed bytes, "greater than 0x20" leaves 0x21..0x7F (0x80 and up are negative).
    const __m128i space = _mm_set1_epi8(0x20);
    const __m128i del = _mm_set1_epi8(0x7F);
    uint64_t mask = 0;
    for (int part = 0; part < 4; ++part) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * part));
        const __m128i graphic = _mm_andnot_si128(_mm_cmpeq_epi8(bytes, del), _mm_cmpgt_epi8(bytes, space));
        mask |= static_cast<uint64_t>(static_cast<uint16_t>(_mm_movemask_epi8(graphic))) << (16 * part);
    }
    return mask;
#else
    uint64_t mask = 0;
    for (unsigned i = 0; i < 64; ++i) {
        mask |= static_cast<uint64_t>(IsGraphic(static_cast<unsigned char>(p[i]))) << i;
    }
    return mask;
#endif
}

// The same for the first n (< 64) bytes; the other bits are 0.
inline uint64_t GraphicMaskTail(const char* p, size_t n) {
    char block[64] = {0};
    memcpy(block, p, n);
    return GraphicMask(block) & ((uint64_t{1} << n) - 1);
}

// Bit i set when byte i - 1 ends a run of at least `window` (1 to 64) graphic
// bytes; `g` is the block's graphic mask and `before` the previous 64 bytes'.
inline uint64_t RunEnds(uint64_t g, uint64_t before, unsigned window) {
    using Bits = unsigned __int128;
    Bits runs = (static_cast<Bits>(g) << 64) | before;
    unsigned width = 1;
    while (width * 2 <= window) {
        runs &= runs << width;
        width *= 2;
    }
    if (window > width) {
        runs &= runs << (window - width);
    }
    return static_cast<uint64_t>(runs >> 63);
}

}  // namespace

void ProcDetStringsScanner::Init(const std::set<std::string>& keywords, int64_t maxFileSize,
                                 Poco::Logger* logger) {
    maxFileSize_ = maxFileSize;
    logger_ = logger;
    if (&keywords != &keywords_) {
        keywords_ = keywords;
    }
    for (auto it = keywords_.begin(); it != keywords_.end();) {
        if (it->size() > kMaxKeywordLength) {
            // The overlap kept across a cut of a long string must fit the carry area.
            // Init runs every cycle; the task logs such keywords once, when it takes its policy.
            it = keywords_.erase(it);
            continue;
        }
        minKeywordLen_ = std::min<uint64_t>(minKeywordLen_, it->size());
        maxKeywordLen_ = std::max<uint64_t>(maxKeywordLen_, it->size());
        ++it;
    }

    matcher_.Build(keywords_);
    selected_.assign(keywords_.size(), 0);
    found_.assign(keywords_.size(), 0);
}

bool ProcDetStringsScanner::Strings(const std::string& path, std::set<std::string>& matched) {
    std::string resolved;
    if (!ProcDetStringsFiles::ResolvePath(path, resolved)) {
        return false;
    }
    FILE* file = ProcDetStringsFiles::OpenForReading(resolved);
    if (file == nullptr) {
        PROCDET_DEBUG(logger_, "open file [%s] to check str failed.", path);
        return false;
    }
    // The scan still takes the file 4 KiB at a time; only the reads beneath it are
    // larger, never past the chunk that holds the maxFileSize-th byte.
    const int64_t limit = std::max<int64_t>(maxFileSize_, 1);
    const size_t chunks = static_cast<size_t>((limit + kChunkSize - 1) / kChunkSize);
    std::vector<char> block(std::min(ProcDetStringsFiles::kReadBlock, chunks * kChunkSize));
    setvbuf(file, block.data(), _IOFBF, block.size());
    PROCDET_PACE_CPU(kTaskName);
    std::set<std::string> remaining = keywords_;
    CheckFileContent(matched, file, remaining);
    fclose(file);
    return true;
}

void ProcDetStringsScanner::CheckFileContent(std::set<std::string>& matched, FILE* file,
                                             std::set<std::string>& remaining) {
    // Carry area [0, kChunkSize), read area [kChunkSize, 2 * kChunkSize), one spare
    // byte: a string crossing a chunk boundary stays contiguous in memory.
    char buffer[2 * kChunkSize + 1];
    memset(buffer, 0, sizeof(buffer));
    char* const readArea = buffer + kChunkSize;
    char* openString = nullptr;
    int counter = 0;
    int64_t total = 0;
    // The ranks are good for this scan only: the set is the caller's.
    RankRemaining(remaining);
    struct Unrank {
        const std::set<std::string>*& set;
        ~Unrank() { set = nullptr; }
    } unrank{rankedSet_};

    while (total < maxFileSize_) {
        const size_t n = fread(readArea, 1, kChunkSize, file);
        if (n == 0) {
            break;
        }
        total += static_cast<int64_t>(n);
        if (!CheckStr(readArea, n, counter, remaining, &openString, matched)) {
            break;
        }
        if (openString != nullptr) {
            if (openString >= readArea) {
                openString -= n;  // began in this chunk: follow its bytes into the carry area
            } else if (static_cast<size_t>(openString - buffer) < n) {
                // Longer than the carry area holds: match what there is, then go on
                // from the last maxKeywordLen bytes so no keyword across the cut is lost.
                char* const end = readArea + n;
                const char saved = *end;
                *end = '\0';
                const bool more = MatchKeywords(openString, static_cast<size_t>(end - openString), remaining,
                                                matched, counter);
                *end = saved;
                if (!more) {
                    break;
                }
                openString = end - (n + maxKeywordLen_);
            }
        }
        if (memcpy_s(readArea - n, kChunkSize, readArea, n) != 0) {
            break;
        }
        PROCDET_PACE_CPU(kTaskName);
    }
}

bool ProcDetStringsScanner::CheckStr(char* data, size_t length, int& counter,
                                     std::set<std::string>& remaining, char** openString,
                                     std::set<std::string>& matched) {
    if (length == 0) {
        return true;
    }
    char* open = *openString;
    // An open string of no bytes yet (carried over a cut with no overlap) closes on
    // a leading non-graphic byte like any other.
    if (open == data && !IsGraphic(static_cast<unsigned char>(data[0]))) {
        if (!MatchKeywords(open, 0, remaining, matched, counter)) {
            return false;
        }
        open = nullptr;
    }

    // Only strings of at least `shortest` bytes are worth a MatchKeywords call:
    // shorter ones are never tested, except that with nothing left to find the first
    // closed string ends the scan.
    const uint64_t shortest = remaining.empty() ? 1 : std::max<uint64_t>(minKeywordLen_, 1);
    const unsigned window = static_cast<unsigned>(std::min<uint64_t>(shortest, 64));

    // Graphic bits of the 64 bytes before the block; bit 63 is the byte just before.
    uint64_t before = 0;
    if (open != nullptr) {
        const size_t had = static_cast<size_t>(data - open);
        before = had >= 64 ? ~uint64_t{0} : (had == 0 ? 0 : ~uint64_t{0} << (64 - had));
    }
    for (size_t offset = 0; offset < length; offset += 64) {
        const size_t n = std::min<size_t>(64, length - offset);
        char* const block = data + offset;
        const uint64_t g = n == 64 ? GraphicMask(block) : GraphicMaskTail(block, n);
        const uint64_t valid = n == 64 ? ~uint64_t{0} : (uint64_t{1} << n) - 1;
        const uint64_t starts = g & ~((g << 1) | (before >> 63));
        // Closes: non-graphic bytes whose predecessor ends a run of `window` or more.
        const uint64_t closes = ~g & valid & RunEnds(g, before, window);
        for (uint64_t pending = closes; pending != 0; pending &= pending - 1) {
            const unsigned at = static_cast<unsigned>(__builtin_ctzll(pending));
            const uint64_t earlier = starts & ((uint64_t{1} << at) - 1);
            char* const begin = earlier != 0 ? block + (63 - __builtin_clzll(earlier)) : open;
            const size_t size = static_cast<size_t>(block + at - begin);
            if (size >= shortest && !MatchKeywords(begin, size, remaining, matched, counter)) {
                *openString = begin;
                return false;
            }
        }
        if ((g >> (n - 1)) & 1) {
            if (starts != 0) {
                open = block + (63 - __builtin_clzll(starts));
            }
        } else {
            open = nullptr;
        }
        before = g;
    }
    *openString = open;
    return true;
}

size_t ProcDetStringsScanner::RoomBeforePace(int counter) {
    // A counter from outside 0..10 (never the scan's own) still leaves a group within bounds.
    return counter > 0 && counter < static_cast<int>(kTestsPerPace)
               ? kTestsPerPace - static_cast<size_t>(counter)
               : kTestsPerPace;
}

bool ProcDetStringsScanner::MatchKeywords(const char* text, size_t length, std::set<std::string>& remaining,
                                          std::set<std::string>& matched, int& counter) {
    if (length < minKeywordLen_) {
        return !remaining.empty();
    }
    // As strstr: the text ends at its first NUL, while a keyword longer than `length`
    // is not tested at all.
    const size_t searchable = strnlen(text, length);
    if (&remaining == rankedSet_ && remaining.size() == ranked_.size()) {
        MatchRanked(text, length, searchable, remaining, matched, counter);
    } else {
        // Not the set of a file scan: ranked for this call alone.
        RankRemaining(remaining);
        MatchRanked(text, length, searchable, remaining, matched, counter);
        rankedSet_ = nullptr;
    }
    return !remaining.empty();
}

void ProcDetStringsScanner::RankRemaining(std::set<std::string>& remaining) {
    ranked_.clear();
    auto indexed = keywords_.begin();
    uint32_t rank = 0;
    for (auto next = remaining.begin(); next != remaining.end(); ++next) {
        int order = 1;
        while (indexed != keywords_.end() && (order = indexed->compare(*next)) < 0) {
            ++indexed;
            ++rank;
        }
        const bool known = indexed != keywords_.end() && order == 0;
        ranked_.push_back({next, next->size(), known ? rank : kNotIndexed});
    }
    rankedSet_ = &remaining;
}

void ProcDetStringsScanner::MatchRanked(const char* text, size_t length, size_t searchable,
                                        std::set<std::string>& remaining, std::set<std::string>& matched,
                                        int& counter) {
    bool anyHit = false;
    size_t next = 0;
    while (next < ranked_.size()) {
        // The tests up to the next call of the governor, made in one search pass.
        groupSize_ = 0;
        const size_t room = RoomBeforePace(counter);
        while (next < ranked_.size() && groupSize_ < room) {
            const RankedKeyword& keyword = ranked_[next];
            if (keyword.size <= length) {
                AddToGroup(keyword.keyword, keyword.rank, static_cast<uint32_t>(next));
            }
            ++next;
        }
        if (groupSize_ == 0) {
            break;
        }
        TestGroup(text, searchable, remaining, matched);
        for (size_t i = 0; i < groupSize_; ++i) {
            if (group_[i].hit) {
                ranked_[group_[i].slot].size = SIZE_MAX;  // gone from `remaining`; dropped below
                anyHit = true;
            }
        }
        CountGroup(counter);
    }
    if (anyHit) {
        ranked_.erase(std::remove_if(ranked_.begin(), ranked_.end(),
                                     [](const RankedKeyword& keyword) { return keyword.size == SIZE_MAX; }),
                      ranked_.end());
    }
}

void ProcDetStringsScanner::CountGroup(int& counter) {
    counter += static_cast<int>(groupSize_);
    if (counter >= static_cast<int>(kTestsPerPace)) {
        counter = 0;
        PROCDET_PACE_CPU(kTaskName);
    }
}

void ProcDetStringsScanner::TestGroup(const char* text, size_t searchable, std::set<std::string>& remaining,
                                      std::set<std::string>& matched) {
    for (size_t i = 0; i < groupSize_; ++i) {
        if (group_[i].rank != kNotIndexed) {
            selected_[group_[i].rank] = 1;
        }
    }
    matcher_.Find(text, searchable, selected_, found_);
    for (size_t i = 0; i < groupSize_; ++i) {
        GroupEntry& entry = group_[i];
        if (entry.rank == kNotIndexed) {
            // A keyword the last Init did not index: searched on its own.
            const std::string& keyword = *entry.keyword;
            entry.hit = memmem(text, searchable, keyword.c_str(), strlen(keyword.c_str())) != nullptr;
        } else {
            entry.hit = found_[entry.rank] != 0;
            selected_[entry.rank] = 0;
            found_[entry.rank] = 0;
        }
        if (entry.hit) {
            matched.insert(*entry.keyword);
            remaining.erase(entry.keyword);
        }
    }
}

}  // namespace Engine
