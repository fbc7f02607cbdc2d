#pragma once

#include <string>

#include "framework/Task.h"

namespace AgentTest {

// Once per run sends `burst` reports {"test_value": <policy value>, "seq": n}
// to the report task, n counting up over the life of the task; after each run
// and in UnInit it writes "<sent> <refused>" to the policy's sent_log.
class TestReportTask : public Framework::Task {
public:
    static constexpr const char* kTaskName = "agent_test_task";

    explicit TestReportTask(const std::string& featureName);

    int Init() override;
    int Run() override;
    void UnInit() override;

protected:
    ~TestReportTask() override = default;

private:
    void WriteSentLog() const;

    std::string value_;
    int burst_ = 1;
    std::string sentLog_;
    long sent_ = 0;
    long refused_ = 0;
    bool hang_ = false;
};

}  // namespace AgentTest
