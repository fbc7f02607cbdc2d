#pragma once

#include <cstdint>
#include <string>

namespace Framework {

// When and how a task runs.
//
// The JSON form accepted by Parse (a policy's "task_condition" object):
//   {"start_time": 0, "repeat_interval": 60}
//   start_time       seconds since the epoch of the first run; 0 or absent: at once
//   repeat_interval  seconds between two runs; required, must be > 0
class TaskCondition {
public:
    // Values of the task type given to the Framework::Task constructor.
    enum TaskType : int {
        // Init, then Run once per repeat interval from the start time, until unregistered; UnInit.
        TASK_TYPE_PERIODIC = 0,
        // Init, then one Run that returns only when the task is cancelled; UnInit.
        TASK_TYPE_RESIDENT = 3,
        // Init, then the framework drains the message queue (BulkConsumeMsg) as messages
        // arrive until the task is cancelled; Run is not called; UnInit.
        TASK_TYPE_MESSAGE = 4,
    };

    struct Record {
        int64_t startTime = 0;        // seconds since the epoch; 0: at once
        int64_t repeatInterval = 60;  // seconds
    };

    TaskCondition() = default;
    explicit TaskCondition(const Record& record) : record_(record) {}

    // Parses the JSON form above. On failure returns false and keeps the previous record.
    bool Parse(const std::string& json);

    Record GetTaskCondition() const { return record_; }
    void SetTaskCondition(const Record& record) { record_ = record; }

private:
    Record record_;
};

}  // namespace Framework
