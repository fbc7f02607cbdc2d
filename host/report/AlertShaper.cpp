#include "AlertShaper.h"

#include <utility>

#include "AlertSplitter.h"
#include "sdk/HostLog.h"

namespace Agent {

AlertShaper::AlertShaper(std::string sinkName, std::shared_ptr<const SiemEnvelope> envelope)
    : sinkName_(std::move(sinkName)), envelope_(std::move(envelope)) {}

size_t AlertShaper::Shape(const std::string& line, size_t maxBytes, std::vector<std::string>& out) {
    std::string text = line;
    AlertSplitter::Tie tie;
    const bool tied = AlertSplitter::TakeTie(text, tie);
    std::string whole = envelope_ ? envelope_->Wrap(text, tied ? &tie : nullptr) : std::string();
    const size_t size = envelope_ ? whole.size() : text.size();
    if (maxBytes == 0 || size <= maxBytes) {
        out.push_back(envelope_ ? std::move(whole) : std::move(text));
        return 1;
    }
    // Measured with the longest tie the parts can carry; the real one is no longer.
    AlertSplitter::Tie widest{std::string(tied ? tie.of.size() : 64, 'x'), UINT64_MAX};
    const AlertSplitter::Measure measure = [&](const std::string& part) {
        return envelope_ ? envelope_->Wrap(part, &widest).size() : part.size();
    };
    AlertSplitter::Result result;
    std::string error;
    const bool split = AlertSplitter::Split(text, maxBytes, measure, result, error);
    const std::string what = "alert " + (result.eventId.empty() ? std::string() : result.eventId + " ") +
                             "of " + std::to_string(size) + " bytes";
    if (!split || result.parts.empty()) {
        ++undeliverable_;
        HOST_LOG_ERROR(what + " is too long for alert sink " + sinkName_ + " (at most " +
                       std::to_string(maxBytes) + " bytes) and cannot be split (" +
                       (split ? "no entry fits even cut" : error) + "); not sent there");
        return 0;
    }
    if (!tied) {
        tie = {result.eventId, result.entries};
    }
    for (const std::string& part : result.parts) {
        out.push_back(envelope_ ? envelope_->Wrap(part, &tie) : part);
    }
    // The first and then one in a thousand: a flood of long alerts does not flood the log.
    const bool log = split_.fetch_add(1) % 1000 == 0;
    undeliverable_ += result.left;
    if (log) {
        HOST_LOG_WARNING(what + " is too long for alert sink " + sinkName_ + " (at most " +
                         std::to_string(maxBytes) + " bytes): sent as " +
                         std::to_string(result.parts.size()) + " alerts; " + std::to_string(split_.load()) +
                         " split so far");
    }
    if (log && (result.cut > 0 || result.left > 0)) {
        HOST_LOG_ERROR(what + ": for alert sink " + sinkName_ + " " + std::to_string(result.cut) +
                       " process entries had their longest strings cut to fit (ending in \"...[cut]\") and " +
                       std::to_string(result.left) + " were left out");
    }
    return result.parts.size();
}

}  // namespace Agent
