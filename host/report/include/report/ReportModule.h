#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "framework/Module.h"
#include "report/ReportSettings.h"

namespace Agent {

class DataReportTask;

// The host module that owns the report task and registers it as a system task,
// so that it runs before any plug-in sends a report and stops after all of them.
class ReportModule : public Framework::Module {
public:
    static constexpr const char* kModuleName = "data_report_module";
    static constexpr int kStartSeconds = 60;  // how long Init waits for the task's thread

    explicit ReportModule(const ReportSettings& settings);
    ~ReportModule() override;

    // Opens the alert spool, registers "data_comm_report_task" and waits until it runs.
    // Returns 0, or -1 when another agent holds the spool, the engine refused the task or
    // its thread did not start in time (the reason in GetStartError).
    int Init() override;

    // The file sinks reopen their files (SIGUSR1, after logrotate moved them).
    void ReopenSinks();
    // Called on the report task's thread with the count of alerts taken so far, each time it
    // takes one. Set before Init; must return quickly.
    void SetOnAlertsTaken(std::function<void(uint64_t)> listener);
    DataReportTask* GetTask() const { return task_; }
    // Once the report task stopped: every alert it took reached every sink.
    bool HasDeliveredEverything() const;
    // Why Init failed, when it can say (another agent holds the spool, the task did not start).
    const std::string& GetStartError() const { return startError_; }

private:
    DataReportTask* task_;  // one reference, released in the destructor
    std::string startError_;
};

}  // namespace Agent
