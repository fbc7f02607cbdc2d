#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "AlertSinkPump.h"
#include "AlertSpool.h"
#include "framework/Task.h"
#include "report/ReportSettings.h"

namespace Agent {

// "data_comm_report_task": takes the reports (Framework::DataMessage) that any
// task sends it and appends each body, as one JSON line, to the durable spool;
// a batch (what arrived in one pass over the queue) is synced to disk before
// any sink sees it. Each sink then reads the spool on its own thread from its
// committed position (AlertSinkPump), so senders only ever enqueue and a
// stalled sink holds up nothing else. Delivery is at least once: after a crash
// a sink may see again what it had taken but not yet confirmed.
//
// A spool directory that is refused (a link, another user's, open to others)
// is never written: alerts then wait in memory (up to kHeldBytes, the oldest
// dropped and counted past it) and the directory is checked again every
// kReopenSeconds; once it passes, they are spooled and the sinks start.
class DataReportTask : public Framework::Task {
public:
    static constexpr const char* kTaskName = "data_comm_report_task";
    static constexpr const char* kFeatureName = "data_comm_report_feature";
    static constexpr unsigned int kQueueCapacity = 65536;
    static constexpr size_t kMaxAlertBytes = 1u << 20;  // a longer alert is split for the spool
    static constexpr size_t kMaxBodyBytes = 64u << 20;  // a longer report is refused
    static constexpr size_t kHeldBytes = 16u << 20;
    static constexpr int kReopenSeconds = 10;

    explicit DataReportTask(const ReportSettings& settings);

    // Opens the spool, before the task runs. False, with the reason, only when
    // another agent holds it: this one must not start. A refused directory is
    // logged and retried later (alerts wait in memory meanwhile).
    bool OpenSpool(std::string& error);

    int Init() override;
    void UnInit() override;
    // Waits until Init has run on the task's thread: from then on a stop runs UnInit, which
    // spools every report queued. A task stopped before its thread began runs neither, and
    // whatever was queued for it would be lost.
    bool WaitUntilStarted(std::chrono::milliseconds timeout);
    int HandleMsg(const Framework::Message* message) override;

    // SIGUSR1: sinks reopen their files.
    void ReopenSinks();
    // Called on the task's thread with the count taken so far each time it takes a report (the
    // agent's status line). Set before the task starts; must return quickly.
    void SetOnTaken(std::function<void(uint64_t)> listener) { onTaken_ = std::move(listener); }

    uint64_t GetTakenCount() const { return taken_.load(); }      // reports taken, a split one once
    uint64_t GetWrittenCount() const { return written_.load(); }  // spooled
    uint64_t GetRefusedCount() const { return refused_.load(); }  // not one JSON document, or too long
    uint64_t GetSplitCount() const { return split_.load(); }      // alerts spooled in parts
    uint64_t GetHeldCount() const { return heldCount_.load(); }   // waiting in memory for the spool
    uint64_t GetHeldDroppedCount() const { return heldDropped_.load(); }
    const AlertSpool& GetSpool() const { return spool_; }
    // After the task stopped: every alert it took reached every sink (or a sink's dead-letter
    // file); false when some wait in the spool or were lost to a full or refused spool.
    bool HasDeliveredEverything() const { return deliveredEverything_.load(); }
    // The pumps, one per sink, with their delivered and failed counts.
    const std::vector<std::unique_ptr<AlertSinkPump>>& GetPumps() const { return pumps_; }

protected:
    ~DataReportTask() override;

private:
    void Take(const Framework::Message& message);
    void FlushBatch(bool last = false);
    // While the spool is refused: opens it again when due (`now`: whatever the
    // time), then spools what waited in memory and starts the sinks.
    void RetrySpool(bool now);
    void Hold(std::vector<std::string>& lines);
    void StartPumps();
    void MarkStarted();
    // Each sink's delivered and failed counts, the spool's size and drops, for the metrics endpoint.
    void PublishMetrics();

    const ReportSettings settings_;
    AlertSpool spool_;
    std::vector<std::unique_ptr<AlertSinkPump>> pumps_;
    bool pumpsStarted_ = false;
    std::vector<std::string> batch_;
    size_t batchBytes_ = 0;
    std::deque<std::string> held_;  // while the spool is refused
    size_t heldBytes_ = 0;
    std::string spoolRefusal_;  // why, as last logged
    std::chrono::steady_clock::time_point nextOpen_;
    std::function<void(uint64_t)> onTaken_;
    std::atomic<uint64_t> taken_{0};
    std::atomic<uint64_t> written_{0};
    std::atomic<uint64_t> refused_{0};
    std::atomic<uint64_t> split_{0};
    std::atomic<uint64_t> heldCount_{0};
    std::atomic<uint64_t> heldDropped_{0};
    std::atomic<bool> deliveredEverything_{false};
    std::mutex startMutex_;
    std::condition_variable startedCondition_;
    bool started_ = false;
};

}  // namespace Agent
