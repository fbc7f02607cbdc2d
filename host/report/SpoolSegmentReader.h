#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Agent {

// Reads whole alert lines from one spool segment file and finds the damage in
// it: a line that is not one JSON document or is longer than any alert line, a
// segment that ends in the middle of a line or was cut short under the reader.
namespace SpoolSegmentReader {

// A line is at most this long, '\n' included (the report task refuses longer
// bodies): a longer stretch without a line end is damage.
constexpr size_t kMaxLine = 1u << 20;

enum class Scan {
    kDone,    // lines came back, or `offset` is at the segment's end
    kMoved,   // no lines, but `offset` moved over damage
    kGone,    // the file does not exist
    kFailed,  // the file could not be read (logged); nothing moved
};

// The stretch [from, to) holding `lines` damaged lines is lost, for `why`.
using LossNote = std::function<void(uint64_t from, uint64_t to, uint64_t lines, const std::string& why)>;

// Reads from `offset` in the segment `path` that starts at `start` and holds
// `size` bytes: up to `maxLines` whole lines that follow each other (past the
// first, at most `maxBytes` together) into `lines`, with `offset` moved to the
// first of them; damage before the first is skipped (`offset` moves over it)
// and noted, damage after it ends the read there.
Scan Read(uint64_t start, const std::string& path, uint64_t size, uint64_t& offset, size_t maxLines,
          size_t maxBytes, std::vector<std::string>& lines, const LossNote& noteLoss);

}  // namespace SpoolSegmentReader

}  // namespace Agent
