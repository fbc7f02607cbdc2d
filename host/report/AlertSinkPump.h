#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "AlertShaper.h"
#include "AlertSink.h"
#include "AlertSpool.h"
#include "DeadLetterFile.h"
#include "DeliveryErrorLog.h"
#include "SiemEnvelope.h"

namespace Agent {

// Feeds one sink from the spool on a thread of its own, so a sink that stalls
// (a full disk, a dead collector) holds up neither the other sinks nor the
// tasks that send alerts. Reads from the sink's committed offset, delivers,
// and commits only what the sink confirmed, at most every 200 ms (a sync of
// the sink and a rename each time: committing less often only means a crash
// delivers a little again, never that it loses). A failure waits (doubling from
// `retry` up to `retryMax`, with jitter so a fleet does not retry in step) and
// is logged when the outage starts, with each new cause and a count of the
// repeats (DeliveryErrorLog), and once when it ends.
//
// A batch the sink refuses for good is halved until the line refused is alone;
// refused alone kRefusalsBeforeDeadLetter times, that line goes to the sink's
// dead-letter file (<spool>/<sink>.dead) and the sink moves on. Such episodes
// are logged when they start and end, and counted.
class AlertSinkPump {
public:
    static constexpr int kRefusalsBeforeDeadLetter = 3;
    static constexpr uint64_t kDeadLetterMaxBytes = 16u << 20;

    struct Timing {
        std::chrono::milliseconds retry{2000};
        std::chrono::milliseconds retryMax{60000};
    };

    // `envelope` null: lines go out as the module wrote them.
    AlertSinkPump(std::string name, std::unique_ptr<AlertSink> sink,
                  std::shared_ptr<const SiemEnvelope> envelope, AlertSpool& spool, Timing timing,
                  uint64_t deadLetterMaxBytes = kDeadLetterMaxBytes);
    ~AlertSinkPump();

    AlertSinkPump(const AlertSinkPump&) = delete;
    AlertSinkPump& operator=(const AlertSinkPump&) = delete;

    void Start();
    // Delivers what the sink still takes for up to `drain`, then stops; the
    // rest stays in the spool for the next start.
    void Stop(std::chrono::milliseconds drain);
    void RequestReopen() { sink_->RequestReopen(); }

    const std::string& GetName() const { return name_; }
    std::string Describe() const { return sink_->Describe(); }
    uint64_t GetDeliveredCount() const {
        return delivered_.load();
    }                                                           // alerts confirmed (parts count one each)
    uint64_t GetFailedCount() const { return failed_.load(); }  // failed delivery attempts
    const AlertShaper& GetShaper() const { return shaper_; }    // alerts split or left out for size
    uint64_t GetDeadLetteredCount() const { return deadLettered_.load(); }
    // After Stop: the sink confirmed every alert the spool held (or set it aside as refused for good).
    bool HasDrained() const { return drained_.load(); }

private:
    void Loop(uint64_t cursor);
    // Syncs the sink and saves `cursor` as its committed position.
    bool Commit(uint64_t cursor);
    void OnFailure(const std::string& error);
    void OnRecovery();
    // Moves a line refused for good to the dead-letter file; false (logged) when it cannot.
    bool DeadLetter(const std::string& line, const std::string& refusal);
    // Waits before the next attempt, doubling with `attempts`; false once stopped.
    bool Backoff(int attempts);
    // Sleeps up to `duration` unless stopped; false once stopped.
    bool Pause(std::chrono::milliseconds duration);

    const std::string name_;
    std::unique_ptr<AlertSink> sink_;
    AlertShaper shaper_;
    AlertSpool& spool_;
    const Timing timing_;

    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    std::atomic<bool> draining_{false};
    DeadLetterFile deadLetter_;
    DeliveryErrorLog errorLog_;

    int failures_ = 0;  // consecutive
    uint64_t deliveredInOutage_ = 0;
    int refusals_ = 0;            // of the line at the cursor, alone, for good
    uint64_t deadInEpisode_ = 0;  // dead-lettered since alerts last went through
    bool deadLetterFailing_ = false;
    std::atomic<uint64_t> delivered_{0};
    std::atomic<uint64_t> failed_{0};
    std::atomic<uint64_t> deadLettered_{0};
    std::atomic<bool> drained_{false};
};

}  // namespace Agent
