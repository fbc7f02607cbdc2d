#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Engine {

// Finds which of a set of keywords occur in a text, with the result of testing
// each keyword by strstr: a keyword is searched up to its first NUL byte. Instead
// of one search per keyword, one pass over the text looks up a filter of the
// keywords' first bytes (one, two or four of them, by keyword length) and compares
// only where the filter hits. Keywords are numbered in the set's order.
class ProcDetStringsMatcher {
public:
    void Build(const std::set<std::string>& keywords);
    size_t Size() const { return needles.size(); }

    // Sets found[i] for every keyword i with selected[i] set that occurs in
    // text[0, length); `text` holds no NUL in that range. Both vectors have Size() elements.
    void Find(const char* text, size_t length, const std::vector<char>& selected,
              std::vector<char>& found) const;

private:
    using Keyed = std::vector<std::pair<uint32_t, uint32_t>>;  // filter key, entry index; sorted

    static uint32_t Hash4(uint32_t word) { return (word * 0x9E3779B1u) >> 16; }
    static bool Test(const std::vector<uint64_t>& bits, uint32_t key) {
        return (bits[key >> 6] >> (key & 63)) & 1;
    }
    static void Set(std::vector<uint64_t>& bits, uint32_t key) {
        bits[key >> 6] |= uint64_t{1} << (key & 63);
    }

    void Verify(const Keyed& keyed, uint32_t key, const char* text, size_t length, size_t at,
                const std::vector<char>& selected, std::vector<char>& found) const;

    std::vector<std::string> needles;  // each keyword up to its first NUL, as strstr sees it
    std::vector<uint32_t> empties;     // needle "" occurs in every string
    std::vector<uint64_t> oneBits;     // needles of 1 byte, by the byte
    Keyed ones;
    std::vector<uint64_t> twoBits;  // needles of 2 or 3 bytes, by their first two
    Keyed twos;
    std::vector<uint64_t> fourBits;  // longer needles, by a hash of their first four
    Keyed fours;
};

}  // namespace Engine
