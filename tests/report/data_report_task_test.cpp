// The report task: what reaches the alert file on a stop. Outages and stops of a running agent are met end to
// end.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "DataReportTask.h"
#include "framework/DataMessage.h"
#include "support/FileText.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace {

using TestSupport::ReadLines;

std::shared_ptr<Framework::Message> Report(const std::string& body) {
    return std::make_shared<Framework::DataMessage>("2", body);
}

}  // namespace

TEST(DataReportTask, UnInitWritesEveryQueuedReportOneJsonLineEach) {
    TestSupport::TempDir dir;
    TestSupport::LogCapture log("agent");
    Agent::ReportSettings settings;
    settings.filePath = dir.path() + "/alerts.json";
    settings.spoolDir = dir.path() + "/spool";
    auto* task = new Agent::DataReportTask(settings);
    task->Init();
    const int count = 5000;
    for (int index = 0; index < count; ++index) {
        std::shared_ptr<Framework::Message> message = Report("{\"seq\":" + std::to_string(index) + "}");
        ASSERT_TRUE(task->EnqueueMsg(message));
    }
    std::shared_ptr<Framework::Message> pretty = Report("{\n  \"event\": \"multi\",\n  \"n\": [1, 2]\n}\n");
    std::shared_ptr<Framework::Message> broken = Report("{\"event\": ");
    std::shared_ptr<Framework::Message> other = std::make_shared<Framework::Message>("not_a_report");
    task->EnqueueMsg(pretty);
    task->EnqueueMsg(broken);
    task->EnqueueMsg(other);
    task->UnInit();

    const std::vector<std::string> lines = ReadLines(settings.filePath);
    ASSERT_EQ(lines.size(), static_cast<size_t>(count + 1));
    for (int index = 0; index < count; ++index) {
        ASSERT_EQ(lines[static_cast<size_t>(index)], "{\"seq\":" + std::to_string(index) + "}");
    }
    EXPECT_EQ(lines.back(), "{\"event\":\"multi\",\"n\":[1,2]}");
    EXPECT_EQ(task->GetRefusedCount(), 1u);
    EXPECT_EQ(log.Count("is not one JSON document"), 1u);
    task->release();
}
