#pragma once

#include <mutex>
#include <string>
#include <vector>

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

    CaptureReportTask();

    bool InterceptMsg(std::shared_ptr<Framework::Message>& message) override;
    int Run() override;  // waits until cancelled

    std::vector<Report> GetReports() const;
    size_t GetCount() const;

private:
    mutable std::mutex mutex_;
    std::vector<Report> reports_;
};

}  // namespace TestSupport
