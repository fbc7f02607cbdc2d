#include "feature_detaction/ProcDetStringsMatcher.h"

#include <algorithm>
#include <cstring>

namespace Engine {

namespace {

constexpr size_t kFilterBits = 1u << 16;

uint32_t Load16(const char* p) {
    return static_cast<unsigned char>(p[0]) | (static_cast<uint32_t>(static_cast<unsigned char>(p[1])) << 8);
}

uint32_t Load32(const char* p) {
    uint32_t word;
    memcpy(&word, p, sizeof(word));
    return word;
}

}  // namespace

void ProcDetStringsMatcher::Build(const std::set<std::string>& keywords) {
    needles.clear();
    empties.clear();
    ones.clear();
    twos.clear();
    fours.clear();
    oneBits.assign(256 / 64, 0);
    twoBits.assign(kFilterBits / 64, 0);
    fourBits.assign(kFilterBits / 64, 0);

    for (const std::string& keyword : keywords) {
        std::string needle = keyword.substr(0, keyword.find('\0'));
        const auto index = static_cast<uint32_t>(needles.size());
        needles.push_back(needle);
        if (needle.empty()) {
            empties.push_back(index);
        } else if (needle.size() == 1) {
            const uint32_t key = static_cast<unsigned char>(needle[0]);
            Set(oneBits, key);
            ones.emplace_back(key, index);
        } else if (needle.size() < 4) {
            const uint32_t key = Load16(needle.data());
            Set(twoBits, key);
            twos.emplace_back(key, index);
        } else {
            const uint32_t key = Hash4(Load32(needle.data()));
            Set(fourBits, key);
            fours.emplace_back(key, index);
        }
    }
    std::sort(ones.begin(), ones.end());
    std::sort(twos.begin(), twos.end());
    std::sort(fours.begin(), fours.end());
}

void ProcDetStringsMatcher::Verify(const Keyed& keyed, uint32_t key, const char* text, size_t length,
                                   size_t at, const std::vector<char>& selected,
                                   std::vector<char>& found) const {
    auto it = std::lower_bound(keyed.begin(), keyed.end(), std::make_pair(key, uint32_t{0}));
    for (; it != keyed.end() && it->first == key; ++it) {
        const std::string& needle = needles[it->second];
        if (selected[it->second] && !found[it->second] && needle.size() <= length - at &&
            memcmp(text + at, needle.data(), needle.size()) == 0) {
            found[it->second] = 1;
        }
    }
}

void ProcDetStringsMatcher::Find(const char* text, size_t length, const std::vector<char>& selected,
                                 std::vector<char>& found) const {
    for (uint32_t index : empties) {
        found[index] = found[index] || selected[index];
    }
    if (!ones.empty()) {
        for (size_t at = 0; at < length; ++at) {
            const uint32_t key = static_cast<unsigned char>(text[at]);
            if (Test(oneBits, key)) {
                Verify(ones, key, text, length, at, selected, found);
            }
        }
    }
    if (!twos.empty() && length >= 2) {
        for (size_t at = 0; at + 2 <= length; ++at) {
            const uint32_t key = Load16(text + at);
            if (Test(twoBits, key)) {
                Verify(twos, key, text, length, at, selected, found);
            }
        }
    }
    if (!fours.empty() && length >= 4) {
        for (size_t at = 0; at + 4 <= length; ++at) {
            const uint32_t key = Hash4(Load32(text + at));
            if (Test(fourBits, key)) {
                Verify(fours, key, text, length, at, selected, found);
            }
        }
    }
}

}  // namespace Engine
