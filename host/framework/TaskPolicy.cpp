#include "framework/TaskPolicy.h"

#include "framework/Engine.h"
#include "framework/Task.h"

namespace Framework {

TaskPolicy::TaskPolicy(const std::string& taskName) : Policy(taskName) {}

TaskPolicy::~TaskPolicy() = default;

bool TaskPolicy::ParseCondition(const std::string& json) {
    if (!condition_.Parse(json)) {
        return false;
    }
    hasCondition_ = true;
    return true;
}

int TaskPolicy::Dispatch(Policy* /*parent*/) {
    Engine* engine = Engine::Instance();
    Task* task = engine != nullptr ? engine->FindTask(GetName()) : nullptr;
    if (task == nullptr) {
        return 0;
    }
    // The condition goes first so that a task reading its policy also finds its schedule.
    if (hasCondition_) {
        task->SetTaskCondition(condition_);
    }
    task->AttachTaskPolicy(this);
    return 1;
}

}  // namespace Framework
