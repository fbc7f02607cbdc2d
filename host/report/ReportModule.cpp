#include "ReportModule.h"

#include "DataReportTask.h"

namespace Agent {

ReportModule::ReportModule(const ReportSettings& settings)
    : Framework::Module(kModuleName), task_(new DataReportTask(settings)) {}

ReportModule::~ReportModule() {
    task_->release();
}

int ReportModule::Init() {
    task_->SetTaskEnabled(true);
    const int result = RegisterTask(task_, true);
    Framework::Module::Init();
    return result;
}

}  // namespace Agent
