#include "TestReportTask.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

#include "TestFeaturePolicy.h"
#include "framework/DataMessage.h"
#include "sdk/JsonUtils.h"

namespace AgentTest {

TestReportTask::TestReportTask(const std::string& featureName)
    : Framework::Task(kTaskName, featureName, Framework::TaskCondition::TASK_TYPE_PERIODIC, 0) {}

int TestReportTask::Init() {
    if (const auto* policy = dynamic_cast<const TestFeaturePolicy*>(GetFeaturePolicy())) {
        value_ = policy->value;
        burst_ = policy->burst;
        sentLog_ = policy->sentLog;
        hang_ = policy->hang;
    }
    return Framework::Task::Init();
}

int TestReportTask::Run() {
    while (hang_ && !IsStopRequested()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // not Task::sleep: no progress stamp
    }
    for (int index = 0; index < burst_; ++index) {
        Json::Value body;
        body["test_value"] = value_;
        body["seq"] = static_cast<Json::Int64>(sent_ + refused_ + 1);
        if (SendDirectMsg("data_comm_report_task",
                          new Framework::DataMessage("2", SDK::JsonUtils::JsonToString(body))) == 0) {
            ++sent_;
        } else {
            ++refused_;
        }
    }
    WriteSentLog();
    return 0;
}

void TestReportTask::UnInit() {
    WriteSentLog();
    Framework::Task::UnInit();
}

void TestReportTask::WriteSentLog() const {
    if (sentLog_.empty()) {
        return;
    }
    // Written beside and renamed, so that a reader never sees half a line.
    const std::string temp = sentLog_ + ".tmp";
    std::ofstream(temp, std::ios::trunc) << sent_ << " " << refused_ << "\n";
    std::rename(temp.c_str(), sentLog_.c_str());
}

}  // namespace AgentTest
