#include "support/CaptureReportTask.h"

#include <chrono>

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
    {
        std::lock_guard<std::mutex> lock(mutex_);
        reports_.push_back({data->GetType(), data->GetBody()});
    }
    cond_.notify_all();
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

void CaptureReportTask::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    reports_.clear();
}

bool CaptureReportTask::WaitForCount(size_t count, long timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                          [&] { return reports_.size() >= count; });
}

}  // namespace TestSupport
