#include "AlertSinkPump.h"

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

#include "sdk/HostLog.h"

namespace Agent {

namespace {

constexpr size_t kReadBytes = 4u << 20;  // at most this much of the spool per batch
constexpr std::chrono::milliseconds kIdleWait{500};
constexpr std::chrono::milliseconds kCommitEvery{200};

}  // namespace

AlertSinkPump::AlertSinkPump(std::string name, std::unique_ptr<AlertSink> sink,
                             std::shared_ptr<const SiemEnvelope> envelope, AlertSpool& spool, Timing timing,
                             uint64_t deadLetterMaxBytes)
    : name_(std::move(name)),
      sink_(std::move(sink)),
      shaper_(name_, std::move(envelope)),
      spool_(spool),
      timing_(timing),
      deadLetter_(spool.GetDirectory() + "/" + name_ + ".dead", deadLetterMaxBytes),
      errorLog_(name_, sink_->Describe()) {}

AlertSinkPump::~AlertSinkPump() {
    Stop(std::chrono::milliseconds(0));
}

void AlertSinkPump::Start() {
    stop_ = false;
    draining_ = false;
    drained_ = false;
    // Here, not on the thread: alerts spooled right after Start belong to this sink.
    const uint64_t cursor = spool_.LoadCursor(name_);
    thread_ = std::thread([this, cursor] { Loop(cursor); });
}

void AlertSinkPump::Stop(std::chrono::milliseconds drain) {
    if (!thread_.joinable()) {
        return;
    }
    draining_ = true;
    spool_.WakeAll();
    {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.notify_all();
        // The loop ends by itself once the sink has everything or fails.
        wake_.wait_for(lock, drain, [this] { return stop_; });
        stop_ = true;
    }
    wake_.notify_all();
    spool_.WakeAll();
    thread_.join();
}

bool AlertSinkPump::Pause(std::chrono::milliseconds duration) {
    std::unique_lock<std::mutex> lock(mutex_);
    return !wake_.wait_for(lock, duration, [this] { return stop_ || draining_.load(); });
}

bool AlertSinkPump::Commit(uint64_t cursor) {
    std::string error;
    if (!sink_->Sync(error)) {
        OnFailure(error);
        return false;
    }
    if (!spool_.SaveCursor(name_, cursor, error)) {
        HOST_LOG_ERROR("alert sink " + name_ + ": " + error);
    }
    return true;
}

void AlertSinkPump::Loop(uint64_t cursor) {
    std::vector<std::string> lines;
    std::vector<std::string> wrapped;
    std::vector<size_t> parts;
    uint64_t committed = cursor;
    auto lastCommit = std::chrono::steady_clock::now();
    size_t limit = sink_->MaxBatch();  // halved while a batch is refused for good
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stop_) {
                break;
            }
        }
        const auto now = std::chrono::steady_clock::now();
        if (cursor != committed && now - lastCommit >= kCommitEvery) {
            // A failed sync takes back what was written since the last commit.
            cursor = Commit(cursor) ? cursor : committed;
            committed = cursor;
            lastCommit = now;
        }
        lines.clear();
        uint64_t from = cursor;
        if (!spool_.Read(from, limit, kReadBytes, lines)) {
            if (draining_ || !Pause(timing_.retry)) {
                break;  // the spool logged why it could not be read; it keeps the alerts
            }
            continue;
        }
        cursor = from;  // moved over alerts dropped from a full spool and over damage
        if (lines.empty()) {
            if (draining_ && cursor >= spool_.GetEnd()) {
                break;
            }
            const auto wait =
                cursor == committed
                    ? kIdleWait
                    : std::chrono::duration_cast<std::chrono::milliseconds>(lastCommit + kCommitEvery - now) +
                          std::chrono::milliseconds(1);
            spool_.WaitForLines(cursor, std::max(wait, std::chrono::milliseconds(1)));
            continue;
        }
        // One spool line may go out as several (split to the sink's size) or none.
        wrapped.clear();
        parts.clear();
        for (const std::string& line : lines) {
            parts.push_back(shaper_.Shape(line, sink_->MaxLineBytes(), wrapped));
        }
        std::string error;
        const size_t done = wrapped.empty() ? 0 : std::min(sink_->Deliver(wrapped, error), wrapped.size());
        const bool refusedForGood = sink_->TakeRefusedForGood();
        // A spool line is passed once the sink confirmed all its parts.
        size_t taken = 0;
        for (size_t confirmed = 0; taken < lines.size() && confirmed + parts[taken] <= done; ++taken) {
            confirmed += parts[taken];
            cursor += lines[taken].size();
        }
        delivered_ += done;
        if (taken > 0) {
            refusals_ = 0;
        }
        if (failures_ > 0) {
            deliveredInOutage_ += done;
        }
        if (taken == lines.size()) {
            if (failures_ > 0) {
                OnRecovery();
            }
            limit = std::min(sink_->MaxBatch(), limit * 2);
            continue;
        }
        OnFailure(error);
        if (draining_) {
            break;  // a failing sink does not hold up the stop; the spool keeps the rest
        }
        if (refusedForGood) {
            const size_t refused = lines.size() - taken;
            if (refused > 1) {
                limit = refused / 2;  // find the line refused: try the first half alone
                continue;
            }
            if (++refusals_ >= kRefusalsBeforeDeadLetter && DeadLetter(lines[taken], error)) {
                cursor += lines[taken].size();
                refusals_ = 0;
                continue;
            }
        }
        // The halving steps are no outage of their own: a line refused alone waits from the first step.
        if (!Backoff(refusedForGood ? refusals_ : failures_)) {
            break;
        }
    }
    if (cursor != committed && !Commit(cursor)) {
        cursor = committed;
    }
    drained_ = cursor >= spool_.GetEnd();
    errorLog_.Flush();
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
    wake_.notify_all();
}

bool AlertSinkPump::Backoff(int attempts) {
    // Doubling wait with jitter in [1/2, 1] of it.
    const auto ceiling = std::min(timing_.retryMax, timing_.retry * (1 << std::clamp(attempts - 1, 0, 16)));
    static thread_local std::minstd_rand random(std::random_device{}());
    const auto wait = ceiling / 2 + std::chrono::milliseconds(random() % (ceiling.count() / 2 + 1));
    return Pause(wait);
}

bool AlertSinkPump::DeadLetter(const std::string& line, const std::string& refusal) {
    std::string error;
    if (!deadLetter_.Append(line, error)) {
        if (!deadLetterFailing_) {
            HOST_LOG_ERROR("alert sink " + name_ + " refuses an alert for good (" + refusal +
                           ") and it cannot be set aside: " + error + "; it waits in the spool");
            deadLetterFailing_ = true;
        }
        return false;
    }
    deadLetterFailing_ = false;
    ++deadLettered_;
    if (deadInEpisode_++ == 0) {
        HOST_LOG_ERROR("alert sink " + name_ + " (" + sink_->Describe() + ") refused an alert " +
                       std::to_string(kRefusalsBeforeDeadLetter) + " times for good (" + refusal +
                       "); moved it to " + deadLetter_.GetPath() + " and going on with the next");
    }
    return true;
}

void AlertSinkPump::OnFailure(const std::string& error) {
    ++failed_;
    if (failures_++ == 0) {
        deliveredInOutage_ = 0;
    }
    errorLog_.Failed(error);
}

void AlertSinkPump::OnRecovery() {
    if (deadInEpisode_ > 0) {
        HOST_LOG_WARNING("alert sink " + name_ + " takes alerts again; " + std::to_string(deadInEpisode_) +
                         " alerts it refused for good went to " + deadLetter_.GetPath());
        deadInEpisode_ = 0;
    }
    errorLog_.Recovered(failures_, deliveredInOutage_);
    failures_ = 0;
}

}  // namespace Agent
