#include "report/ReportModule.h"

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
    const int result = RegisterTask(task_, true);
    Framework::Module::Init();
    return result;
}

bool ReportModule::HasDeliveredEverything() const {
    return task_->HasDeliveredEverything();
}

}  // namespace Agent
