#include "DeliveryErrorLog.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "sdk/HostLog.h"

namespace Agent {

namespace {

const std::string kOtherErrors;  // the key of the texts past kMaxDistinct

}  // namespace

DeliveryErrorLog::DeliveryErrorLog(std::string sink, std::string description, Clock clock)
    : sink_(std::move(sink)), description_(std::move(description)), clock_(std::move(clock)) {}

void DeliveryErrorLog::Failed(const std::string& error) {
    const auto now = clock_();
    const std::string text = error.empty() ? std::string("no reason given") : error;
    auto found = errors_.find(text);
    if (found != errors_.end()) {
        ++found->second.count;
    } else {
        // Room for a new text: forget those neither seen nor owed a summary for an interval.
        for (auto entry = errors_.begin(); errors_.size() >= kMaxDistinct && entry != errors_.end();) {
            const bool stale = entry->first != kOtherErrors && entry->second.count == 0 &&
                               now - entry->second.logged >= kSummaryInterval;
            entry = stale ? errors_.erase(entry) : std::next(entry);
        }
        const size_t distinct = errors_.size() - errors_.count(kOtherErrors);
        if (distinct < kMaxDistinct) {
            errors_[text].logged = now;
            HOST_LOG_ERROR("cannot deliver alerts to " + sink_ + " (" + description_ + "): " + text +
                           "; they wait in the spool and are retried");
        } else {
            auto other = errors_.emplace(kOtherErrors, Repeats{0, now}).first;
            ++other->second.count;
        }
    }
    SummariseDue(false);
}

void DeliveryErrorLog::Recovered(int attempts, uint64_t delivered) {
    SummariseDue(true);
    errors_.clear();
    HOST_LOG_INFO("alerts reach " + sink_ + " (" + description_ + ") again after " +
                  std::to_string(attempts) + " failed attempts; " + std::to_string(delivered) +
                  " delivered since");
}

void DeliveryErrorLog::Flush() {
    SummariseDue(true);
}

void DeliveryErrorLog::SummariseDue(bool all) {
    const auto now = clock_();
    for (auto& [error, repeats] : errors_) {
        if (repeats.count > 0 && (all || now - repeats.logged >= kSummaryInterval)) {
            Summarise(error, repeats, now);
        }
    }
}

void DeliveryErrorLog::Summarise(const std::string& error, Repeats& repeats,
                                 std::chrono::steady_clock::time_point now) {
    // Whole seconds, rounded up: "in the last 0 s" would read as nothing.
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(now - repeats.logged).count();
    const std::string span = std::to_string(std::max<long long>(1, (millis + 999) / 1000));
    const std::string count = std::to_string(repeats.count);
    const bool one = repeats.count == 1;
    if (error == kOtherErrors) {
        HOST_LOG_ERROR("cannot deliver alerts to " + sink_ + ": " + count + " more " +
                       (one ? "failure" : "failures") + " with other errors in the last " + span + " s");
    } else {
        HOST_LOG_ERROR("cannot deliver alerts to " + sink_ + ": " + error + " (" + count + " more " +
                       (one ? "time" : "times") + " in the last " + span + " s)");
    }
    repeats.count = 0;
    repeats.logged = now;
}

}  // namespace Agent
