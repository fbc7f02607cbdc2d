#pragma once

#include <string>

#include "framework/Policy.h"
#include "framework/TaskCondition.h"

namespace Framework {

// The policy of one task; its name is the task name. Dispatch attaches it to
// the registered task of that name, with its task condition, before the task's Init.
class TaskPolicy : public Policy {
public:
    explicit TaskPolicy(const std::string& taskName);
    ~TaskPolicy() override;

    // Parses a "task_condition" object given as JSON text (see TaskCondition).
    bool ParseCondition(const std::string& json);
    bool HasCondition() const { return hasCondition_; }
    const TaskCondition& GetCondition() const { return condition_; }

    int Dispatch(Policy* parent) override;

private:
    TaskCondition condition_;
    bool hasCondition_ = false;
};

}  // namespace Framework
