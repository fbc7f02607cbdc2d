#include "collect/MixedTask.h"
#include "collect/ProcsMessage.h"
#include "framework/Task.h"

namespace Engine {

ProcsUnRegistMessage::ProcsUnRegistMessage(unsigned int flag, Framework::Task* requester)
    : Framework::Message("procs_unregist_message"), flag_(flag), requester_(requester) {}

ProcsUnRegistMessage::~ProcsUnRegistMessage() = default;

int ProcsUnRegistMessage::MessageHandle(void* target) {
    auto* task = static_cast<Framework::Task*>(target);
    if (task == nullptr) {
        return 0;
    }
    task->DelConsumer(flag_, "", requester_);
    if (auto* mixed = dynamic_cast<MixedTask*>(task)) {
        mixed->RemoveSubscription(flag_);
    }
    return 0;
}

}  // namespace Engine
