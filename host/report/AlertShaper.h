#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "SiemEnvelope.h"

namespace Agent {

// Turns spool lines into the lines one sink sends: takes off the tie of an
// alert the report task split for the spool, wraps the alert in the SIEM
// envelope when the sink wants one, and splits an alert too long for the sink
// (AlertSplitter). What it cannot make fit is logged and counted, never sent
// cut short.
class AlertShaper {
public:
    // `envelope` null: lines go out as the module wrote them.
    AlertShaper(std::string sinkName, std::shared_ptr<const SiemEnvelope> envelope);

    // Appends to `out` the lines for spool line `line`, none longer than
    // `maxBytes` (0: any length); returns how many (0: none could be made to fit).
    size_t Shape(const std::string& line, size_t maxBytes, std::vector<std::string>& out);

    uint64_t GetSplitCount() const { return split_.load(); }                  // alerts sent in parts
    uint64_t GetUndeliverableCount() const { return undeliverable_.load(); }  // alerts or entries left out

private:
    const std::string sinkName_;
    const std::shared_ptr<const SiemEnvelope> envelope_;
    std::atomic<uint64_t> split_{0};
    std::atomic<uint64_t> undeliverable_{0};
};

}  // namespace Agent
