#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Engine {

// Finds, in one printable string, which keywords of a set occur in it, with the
// result of testing each keyword by strstr: a keyword is searched up to its first
// NUL byte, and is only tested against strings at least as long as the whole
// keyword. Instead of one search per keyword, one pass over the string looks up a
// filter of the keywords' first bytes (one, two or four of them, by keyword
// length) and compares only where the filter hits.
class ProcDetStringsMatcher {
public:
    // `keywords` must outlive the matcher's use (entries point into it).
    void Build(const std::set<std::string>& keywords);

    // For each keyword occurring in text[0, length) that is still in `remaining`:
    // moves it from `remaining` to `matched`.
    void Match(const char* text, size_t length, std::set<std::string>& remaining,
               std::set<std::string>& matched) const;

private:
    struct Entry {
        const std::string* keyword;  // in the set given to Build
        std::string needle;          // up to the first NUL, as strstr sees it
    };
    using Keyed = std::vector<std::pair<uint32_t, uint32_t>>;  // filter key, entry index; sorted

    static uint32_t Hash4(uint32_t word) { return (word * 0x9E3779B1u) >> 16; }
    static bool Test(const std::vector<uint64_t>& bits, uint32_t key) {
        return (bits[key >> 6] >> (key & 63)) & 1;
    }
    static void Set(std::vector<uint64_t>& bits, uint32_t key) {
        bits[key >> 6] |= uint64_t{1} << (key & 63);
    }

    void Verify(const Keyed& keyed, uint32_t key, const char* text, size_t length, size_t at,
                std::set<std::string>& remaining, std::set<std::string>& matched) const;
    void Take(const Entry& entry, size_t length, std::set<std::string>& remaining,
              std::set<std::string>& matched) const;

    std::vector<Entry> entries;
    std::vector<uint32_t> empties;  // needle "" occurs in every string
    std::vector<uint64_t> oneBits;  // needles of 1 byte, by the byte
    Keyed ones;
    std::vector<uint64_t> twoBits;  // needles of 2 or 3 bytes, by their first two
    Keyed twos;
    std::vector<uint64_t> fourBits;  // longer needles, by a hash of their first four
    Keyed fours;
};

}  // namespace Engine
