#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace Agent {

// The log of one sink's delivery failures, so that an outage that changes its
// cause shows every cause without a line per retry. Each distinct error text is
// logged the first time it occurs in an outage; its repeats are counted and
// summarised ("... (N more times in the last S s)") at most once per
// kSummaryInterval, and whatever is still counted when the sink delivers again,
// before the recovery line. At most kMaxDistinct texts are kept apart; past
// that, new texts are counted together as "other errors" (error texts may carry
// changing figures, and the log must stay bounded). Not thread-safe: it is
// used by its pump's thread alone.
class DeliveryErrorLog {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    static constexpr std::chrono::seconds kSummaryInterval{60};
    static constexpr size_t kMaxDistinct = 8;

    // `description` names the destination in the log (AlertSink::Describe).
    DeliveryErrorLog(std::string sink, std::string description, Clock clock = std::chrono::steady_clock::now);

    // One failed attempt.
    void Failed(const std::string& error);
    // The sink delivers again after `attempts` failed attempts, `delivered` alerts since the first.
    void Recovered(int attempts, uint64_t delivered);
    // Logs the repeats still counted (the sink stops while failing).
    void Flush();

private:
    struct Repeats {
        uint64_t count = 0;  // since `logged`
        std::chrono::steady_clock::time_point logged;
    };
    void Summarise(const std::string& error, Repeats& repeats, std::chrono::steady_clock::time_point now);
    // Summarises what is due (everything when `all`).
    void SummariseDue(bool all);

    const std::string sink_;
    const std::string description_;
    const Clock clock_;
    std::map<std::string, Repeats> errors_;  // in this outage; "" holds the other errors
};

}  // namespace Agent
