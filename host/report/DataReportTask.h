#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "AlertSinkPump.h"
#include "AlertSpool.h"
#include "report/ReportSettings.h"
#include "framework/Task.h"

namespace Agent {

// "data_comm_report_task": takes the reports (Framework::DataMessage) that any
// task sends it and appends each body, as one JSON line, to the durable spool;
// a batch (what arrived in one pass over the queue) is synced to disk before
// any sink sees it. Each sink then reads the spool on its own thread from its
// committed position (AlertSinkPump), so senders only ever enqueue and a
// stalled sink holds up nothing else. Delivery is at least once: after a crash
// a sink may see again what it had taken but not yet confirmed.
class DataReportTask : public Framework::Task {
public:
    static constexpr const char* kTaskName = "data_comm_report_task";
    static constexpr const char* kFeatureName = "data_comm_report_feature";
    static constexpr unsigned int kQueueCapacity = 65536;
    static constexpr size_t kMaxAlertBytes = 1u << 20;  // a longer alert is split for the spool
    static constexpr size_t kMaxBodyBytes = 64u << 20;  // a longer report is refused

    explicit DataReportTask(const ReportSettings& settings);

    int Init() override;
    void UnInit() override;
    int HandleMsg(const Framework::Message* message) override;

    // SIGUSR1: sinks reopen their files.
    void ReopenSinks();

    uint64_t GetWrittenCount() const { return written_.load(); }  // spooled
    uint64_t GetRefusedCount() const { return refused_.load(); }  // not one JSON document, or too long
    uint64_t GetSplitCount() const { return split_.load(); }      // alerts spooled in parts
    const AlertSpool& GetSpool() const { return spool_; }
    // The pumps, one per sink, with their delivered and failed counts.
    const std::vector<std::unique_ptr<AlertSinkPump>>& GetPumps() const { return pumps_; }

protected:
    ~DataReportTask() override;

private:
    void Take(const Framework::Message& message);
    void FlushBatch();
    // Each sink's delivered and failed counts, the spool's size and drops, for the metrics endpoint.
    void PublishMetrics();

    const ReportSettings settings_;
    AlertSpool spool_;
    std::vector<std::unique_ptr<AlertSinkPump>> pumps_;
    std::vector<std::string> batch_;
    size_t batchBytes_ = 0;
    std::atomic<uint64_t> written_{0};
    std::atomic<uint64_t> refused_{0};
    std::atomic<uint64_t> split_{0};
};

}  // namespace Agent
