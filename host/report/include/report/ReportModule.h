#pragma once

#include "framework/Module.h"
#include "report/ReportSettings.h"

namespace Agent {

class DataReportTask;

// The host module that owns the report task and registers it as a system task,
// so that it runs before any plug-in sends a report and stops after all of them.
class ReportModule : public Framework::Module {
public:
    static constexpr const char* kModuleName = "data_report_module";

    explicit ReportModule(const ReportSettings& settings);
    ~ReportModule() override;

    // Registers "data_comm_report_task". Returns 0, or -1 when the engine refused it.
    int Init() override;

    // The file sinks reopen their files (SIGUSR1, after logrotate moved them).
    void ReopenSinks();

private:
    DataReportTask* task_;  // one reference, released in the destructor
};

}  // namespace Agent
