#include <cstring>

#include "ProcDetLog.h"
#include "feature_detaction/ProcDetStrings.h"
#include "sdk/SecureC.h"

namespace Engine {

namespace {

constexpr const char* kTaskName = "detaction_full_task";
constexpr int kTestsPerPace = 11;

inline bool IsGraphic(unsigned char byte) {
    return byte >= 0x21 && byte <= 0x7E;
}

}  // namespace

bool ProcDetStrings::Strings(const std::string& path, const bool& /*running*/,
                             std::set<std::string>& matched) const {
    // `running` is not consulted: a file once opened is read to one of its stops.
    std::string resolved;
    if (!ResolvePath(path, resolved)) {
        return false;
    }
    FILE* file = OpenRegularFile(resolved);
    if (file == nullptr) {
        PROCDET_DEBUG(logger, "open file [%s] to check str failed.", path);
        return false;
    }
    PROCDET_PACE_CPU(kTaskName);
    std::set<std::string> remaining = keywords;
    CheckFileContent(matched, file, remaining);
    fclose(file);
    return true;
}

void ProcDetStrings::CheckFileContent(std::set<std::string>& matched, FILE* file,
                                      std::set<std::string>& remaining) const {
    // Carry area [0, kChunkSize), read area [kChunkSize, 2 * kChunkSize), one spare
    // byte: a string crossing a chunk boundary stays contiguous in memory.
    char buffer[2 * kChunkSize + 1];
    memset(buffer, 0, sizeof(buffer));
    char* const readArea = buffer + kChunkSize;
    char* openString = nullptr;
    int counter = 0;
    int64_t total = 0;

    while (total < maxFileSize) {
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
                openString = end - (n + maxKeywordLen);
            }
        }
        if (memcpy_s(readArea - n, kChunkSize, readArea, n) != 0) {
            break;
        }
        PROCDET_PACE_CPU(kTaskName);
    }
}

bool ProcDetStrings::CheckStr(char* data, size_t length, int& counter, std::set<std::string>& remaining,
                              char** openString, std::set<std::string>& matched) const {
    if (length == 0) {
        return true;
    }
    for (char* p = data; p != data + length; ++p) {
        const bool graphic = IsGraphic(static_cast<unsigned char>(*p));
        if (*openString != nullptr && !graphic) {
            const char saved = *p;
            *p = '\0';
            if (!MatchKeywords(*openString, static_cast<size_t>(p - *openString), remaining, matched,
                               counter)) {
                return false;
            }
            *p = saved;
            *openString = nullptr;
        } else if (*openString == nullptr && graphic) {
            *openString = p;
        }
    }
    return true;
}

bool ProcDetStrings::MatchKeywords(const char* text, size_t length, std::set<std::string>& remaining,
                                   std::set<std::string>& matched, int& counter) const {
    if (length < minKeywordLen) {
        return !remaining.empty();
    }
    for (auto it = remaining.begin(); it != remaining.end();) {
        if (it->size() > length) {
            ++it;
            continue;
        }
        const bool found = strstr(text, it->c_str()) != nullptr;
        auto next = std::next(it);
        if (found) {
            matched.insert(*it);
            remaining.erase(it);
        }
        it = next;
        if (++counter >= kTestsPerPace) {
            counter = 0;
            PROCDET_PACE_CPU(kTaskName);
        }
    }
    return !remaining.empty();
}

size_t ProcDetStrings::CountTests(const std::set<std::string>& remaining, size_t length) const {
    if (remaining.size() == keywords.size()) {
        return length < testsUpTo.size() ? testsUpTo[length] : keywords.size();
    }
    size_t tests = 0;
    for (const std::string& keyword : remaining) {
        tests += keyword.size() <= length ? 1 : 0;
    }
    return tests;
}

}  // namespace Engine
