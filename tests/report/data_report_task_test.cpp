// The report task: what reaches the alert file, on a stop and after an outage.
#include <gtest/gtest.h>

#include <Poco/File.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DataReportTask.h"
#include "ReportModule.h"
#include "framework/DataMessage.h"
#include "framework/Engine.h"
#include "support/FileText.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

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

TEST(DataReportTask, RunsAsSystemTaskRetriesAFailedFileAndDrainsOnStopAll) {
    TestSupport::TempDir dir;
    Agent::ReportSettings settings;
    settings.filePath = dir.path() + "/missing/alerts.json";
    settings.spoolDir = dir.path() + "/spool";
    settings.retrySeconds = 1;
    Framework::Engine engine;
    {
        Agent::ReportModule module(settings);
        ASSERT_EQ(module.Init(), 0);
        Framework::Task* report = engine.FindTask("data_comm_report_task");
        ASSERT_NE(report, nullptr);
        ASSERT_EQ(
            report->SendDirectMsg("data_comm_report_task", new Framework::DataMessage("2", "{\"n\":0}")), 0);

        // Once the line waits in the backlog, no further report arrives: the periodic
        // retry alone must bring the line out.
        auto* task = dynamic_cast<Agent::DataReportTask*>(report);
        ASSERT_TRUE(TestSupport::WaitFor([&] { return task->GetWrittenCount() == 1; }));
        Poco::File(dir.path() + "/missing").createDirectories();
        TestSupport::WaitFor([&] { return !ReadLines(settings.filePath).empty(); });
        ASSERT_EQ(ReadLines(settings.filePath), std::vector<std::string>{"{\"n\":0}"});

        for (int index = 1; index <= 20000; ++index) {
            report->SendDirectMsg("data_comm_report_task",
                                  new Framework::DataMessage("2", "{\"n\":" + std::to_string(index) + "}"));
        }
        engine.StopAll();
        module.UnInit();
    }
    const std::vector<std::string> lines = ReadLines(settings.filePath);
    ASSERT_EQ(lines.size(), 20001u);
    EXPECT_EQ(lines.back(), "{\"n\":20000}");
}
