#include "support/CaptureReportTask.h"

#include "framework/DataMessage.h"

namespace TestSupport {

CaptureReportTask::CaptureReportTask()
    : Framework::Task("data_comm_report_task", "data_comm_feature",
                      Framework::TaskCondition::TASK_TYPE_RESIDENT, 65536) {}

bool CaptureReportTask::InterceptMsg(std::shared_ptr<Framework::Message>& message) {
    const auto* data = dynamic_cast<const Framework::DataMessage*>(message.get());
    if (data == nullptr) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    reports_.push_back({data->GetType(), data->GetBody()});
    return true;
}

int CaptureReportTask::Run() {
    while (!sleep(1000)) {
    }
    return 0;
}

std::vector<CaptureReportTask::Report> CaptureReportTask::GetReports() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return reports_;
}

size_t CaptureReportTask::GetCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return reports_.size();
}

}  // namespace TestSupport
