#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "AlertSink.h"
#include "AlertSinkWriter.h"
#include "ReportSettings.h"
#include "RetryTicker.h"
#include "framework/Task.h"

namespace Agent {

// "data_comm_report_task": takes the reports (Framework::DataMessage) that any
// task sends it and writes each body as one JSON line to every sink. Senders
// only enqueue; all writing happens on this task's thread, and a failing sink
// holds its lines back without holding up the others. UnInit writes everything
// still queued before the task ends.
class DataReportTask : public Framework::Task {
public:
    static constexpr const char* kTaskName = "data_comm_report_task";
    static constexpr const char* kFeatureName = "data_comm_report_feature";
    static constexpr unsigned int kQueueCapacity = 65536;

    // Standard output and/or the alert file, as `settings` asks.
    explicit DataReportTask(const ReportSettings& settings);
    DataReportTask(std::vector<std::unique_ptr<AlertSink>> sinks, size_t backlogBytes, int retrySeconds);

    int Init() override;
    void UnInit() override;
    int HandleMsg(const Framework::Message* message) override;

    uint64_t GetWrittenCount() const { return written_.load(); }
    uint64_t GetRefusedCount() const { return refused_.load(); }

protected:
    ~DataReportTask() override;

private:
    void Write(const Framework::Message& message);
    void RetryBacklogs();
    void UpdateBacklogFlag();
    void RequestRetry();

    std::vector<std::unique_ptr<AlertSinkWriter>> writers_;
    const int retrySeconds_;
    RetryTicker ticker_;
    std::atomic<bool> backlog_{false};
    std::atomic<uint64_t> written_{0};
    std::atomic<uint64_t> refused_{0};
};

}  // namespace Agent
