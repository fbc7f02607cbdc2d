#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framework/DataMessage.h"
#include "framework/Task.h"

namespace TestSupport {

// "data_comm_report_task" that keeps every DataMessage sent to it. Capture is
// synchronous: a message is recorded when SendDirectMsg hands it over.
class CaptureReportTask : public Framework::Task {
public:
    struct Report {
        std::string type;
        std::string body;
    };

    CaptureReportTask()
        : Framework::Task("data_comm_report_task", "data_comm_feature",
                          Framework::TaskCondition::TASK_TYPE_RESIDENT, 65536) {}

    bool InterceptMsg(std::shared_ptr<Framework::Message>& message) override {
        const auto* data = dynamic_cast<const Framework::DataMessage*>(message.get());
        std::lock_guard<std::mutex> lock(mutex_);
        if (data != nullptr) {
            reports_.push_back({data->GetType(), data->GetBody()});
        }
        return data != nullptr;
    }
    int Run() override {  // waits until cancelled
        while (!sleep(1000)) {
        }
        return 0;
    }

    std::vector<Report> GetReports() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return reports_;
    }
    size_t GetCount() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return reports_.size();
    }

private:
    mutable std::mutex mutex_;
    std::vector<Report> reports_;
};

}  // namespace TestSupport
