#include "SpoolLossLog.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "sdk/HostLog.h"

namespace Agent {

namespace {

constexpr size_t kMaxLostStretches = 4096;  // remembered so each is logged once

}  // namespace

void SpoolLossLog::Note(uint64_t from, uint64_t to, uint64_t lines, const std::string& where,
                        const std::string& what) {
    // Only what no earlier note covers.
    std::vector<std::pair<uint64_t, uint64_t>> fresh;
    uint64_t at = from;
    auto known = lost_.upper_bound(from);
    if (known != lost_.begin() && std::prev(known)->second > from) {
        --known;
    }
    for (; known != lost_.end() && known->first < to; ++known) {
        if (known->first > at) {
            fresh.emplace_back(at, known->first);
        }
        at = std::max(at, known->second);
    }
    if (at < to) {
        fresh.emplace_back(at, to);
    }
    if (fresh.empty()) {
        return;
    }
    uint64_t bytes = 0;
    for (const auto& stretch : fresh) {
        lost_[stretch.first] = stretch.second;
        bytes += stretch.second - stretch.first;
    }
    while (lost_.size() > kMaxLostStretches) {
        lost_.erase(lost_.begin());
    }
    // Lines are counted when the whole stretch is new; a partly known one adds only its bytes.
    lines = bytes == to - from ? lines : 0;
    lostBytes_ += bytes;
    droppedLines_ += lines;
    HOST_LOG_ERROR("alert spool: " + where + " offset " + std::to_string(fresh.front().first) + ": " + what +
                   "; " + std::to_string(bytes) + " bytes" +
                   (lines > 0 ? " (" + std::to_string(lines) + " alert lines)" : std::string()) +
                   " skipped and lost");
}

void SpoolLossLog::ForgetBefore(uint64_t offset) {
    lost_.erase(lost_.begin(), lost_.lower_bound(offset));
}

}  // namespace Agent
