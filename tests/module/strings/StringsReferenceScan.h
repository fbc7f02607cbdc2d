#pragma once

#include <algorithm>
#include <set>
#include <string>

// The detector's keyword search done the plain way, to compare with: split the bytes the reader
// takes into runs of graphic bytes, and look for every keyword in every run that a non-graphic
// byte closes, or in the overlapping pieces a run longer than the carry area is cut into.
// Shared by the differential test and the strings fuzz target.
namespace StringsTest {

constexpr size_t kReferenceChunk = 4096;

inline bool Graphic(unsigned char byte) {
    return byte > 0x20 && byte < 0x7F;
}

inline std::set<std::string> ReferenceScan(const std::string& data, const std::set<std::string>& keywords,
                                           long limit) {
    size_t longest = 0;
    for (const std::string& keyword : keywords) {
        longest = std::max(longest, keyword.size());
    }
    size_t readable = 0;
    if (limit > 0) {
        const size_t chunks = (static_cast<size_t>(limit) + kReferenceChunk - 1) / kReferenceChunk;
        readable = std::min(data.size(), chunks * kReferenceChunk);
    }
    std::set<std::string> found;
    auto test = [&](size_t from, size_t to) {
        const std::string piece = data.substr(from, to - from);
        for (const std::string& keyword : keywords) {
            // Searched as a C string: up to its first NUL.
            const std::string needle = keyword.substr(0, keyword.find('\0'));
            if (keyword.size() <= piece.size() && piece.find(needle) != std::string::npos) {
                found.insert(keyword);
            }
        }
    };
    bool open = false;
    size_t start = 0;
    for (size_t at = 0; at < readable; ++at) {
        const bool graphic = Graphic(static_cast<unsigned char>(data[at]));
        if (open && !graphic) {
            test(start, at);
            open = false;
        } else if (!open && graphic) {
            open = true;
            start = at;
        }
        const size_t end = at + 1;
        if ((end % kReferenceChunk == 0 || end == readable) && open && end - start > kReferenceChunk) {
            test(start, end);
            start = end - longest;
        }
    }
    return found;
}

}  // namespace StringsTest
