#include "support/FakeProcsRealTask.h"

namespace TestSupport {

FakeProcsRealTask::FakeProcsRealTask()
    : Engine::MixedTask("procs_real_task", "procs_collect_feature",
                        Framework::TaskCondition::TASK_TYPE_MESSAGE, 4096) {}

}  // namespace TestSupport
