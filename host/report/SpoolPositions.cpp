#include "SpoolPositions.h"

#include <algorithm>
#include <utility>

#include "SpoolFileIo.h"

namespace Agent {

namespace {

constexpr size_t kMaxRecordBytes = 64 * 1024;  // <dir>/sinks
const char* const kSinkRecord = "sinks";

}  // namespace

SpoolPositions::SpoolPositions(std::string dir) : dir_(std::move(dir)) {}

void SpoolPositions::LoadRecord() {
    std::string text;
    recordFound_ = SpoolFileIo::ReadSmallFile(dir_ + "/" + kSinkRecord, kMaxRecordBytes, text);
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        if (end > start) {
            knownSinks_.insert(text.substr(start, end - start));
        }
        start = end + 1;
    }
}

bool SpoolPositions::Remember(const std::string& sink, std::string& error) {
    return !knownSinks_.insert(sink).second || SaveRecord(error);
}

bool SpoolPositions::SaveRecord(std::string& error) {
    std::string text;
    for (const std::string& sink : knownSinks_) {
        text += sink + "\n";
    }
    if (!SpoolFileIo::ReplaceFile(dir_ + "/" + kSinkRecord, text, error)) {
        return false;
    }
    recordFound_ = true;
    return true;
}

std::string SpoolPositions::PathOf(const std::string& sink) const {
    return dir_ + "/" + sink + ".pos";
}

SpoolPositions::Saved SpoolPositions::ReadSaved(const std::string& sink, uint64_t& offset) const {
    std::string text;
    // An offset is at most 20 digits.
    if (!SpoolFileIo::ReadSmallFile(PathOf(sink), 32, text)) {
        return Saved::kNone;
    }
    text.erase(std::min(text.find('\n'), text.size()));
    return SpoolFileIo::ParseOffset(text, offset) ? Saved::kOffset : Saved::kUnreadable;
}

bool SpoolPositions::Save(const std::string& sink, uint64_t offset, std::string& error) const {
    return SpoolFileIo::ReplaceFile(PathOf(sink), std::to_string(offset) + "\n", error);
}

uint64_t SpoolPositions::Lowest(uint64_t end) const {
    uint64_t lowest = end;
    for (const auto& cursor : cursors_) {
        lowest = std::min(lowest, cursor.second);
    }
    return lowest;
}

}  // namespace Agent
