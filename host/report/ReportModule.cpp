#include "report/ReportModule.h"

#include <chrono>
#include <string>
#include <utility>

#include "DataReportTask.h"
#include "framework/Metrics.h"

namespace Agent {

ReportModule::ReportModule(const ReportSettings& settings)
    : Framework::Module(kModuleName), task_(new DataReportTask(settings)) {}

ReportModule::~ReportModule() {
    Framework::Metrics::Instance().RemoveRefreshers(this);
    task_->release();
}

void ReportModule::ReopenSinks() {
    task_->ReopenSinks();
}

void ReportModule::SetOnAlertsTaken(std::function<void(uint64_t)> listener) {
    task_->SetOnTaken(std::move(listener));
}

int ReportModule::Init() {
    if (!task_->OpenSpool(startError_)) {
        return -1;
    }
    Framework::Metrics::Instance().AddRefresher(this, [this] {
        Framework::Metrics& metrics = Framework::Metrics::Instance();
        metrics.Counter("corvane_report_alerts_written_total", "Alerts the report task wrote to its sinks")
            .SetTotal(static_cast<double>(task_->GetWrittenCount()));
        metrics.Counter("corvane_report_alerts_refused_total", "Alerts the report task could not take")
            .SetTotal(static_cast<double>(task_->GetRefusedCount()));
    });
    task_->SetTaskEnabled(true);
    if (RegisterTask(task_, true) != 0) {
        return -1;
    }
    // The plug-ins start only once the report task can no longer be stopped without spooling
    // what they sent: under load its thread may not have run yet.
    if (!task_->WaitUntilStarted(std::chrono::seconds(kStartSeconds))) {
        startError_ = "the report task \"data_comm_report_task\" did not start within " +
                      std::to_string(kStartSeconds) + " s";
        return -1;
    }
    Framework::Module::Init();
    return 0;
}

bool ReportModule::HasDeliveredEverything() const {
    return task_->HasDeliveredEverything();
}

}  // namespace Agent
