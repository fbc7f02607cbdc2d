#include "collect/ProcsFullTask.h"

namespace Engine {

ProcsFullTask::ProcsFullTask()
    : Framework::Task(kTaskName, "procs_collect_feature", Framework::TaskCondition::TASK_TYPE_RESIDENT, 0) {}

ProcsFullTask::~ProcsFullTask() = default;

int ProcsFullTask::GetProcsMapFresh(ProcsMap& out, const std::vector<int>& /*compared*/) {
    return GetProcsMap(out);
}

}  // namespace Engine
