#include "collect/MixedTask.h"
#include "collect/ProcsMessage.h"
#include "framework/Task.h"

namespace Engine {

ProcsRegistMessage::ProcsRegistMessage(unsigned int flag, Framework::Task* requester)
    : Framework::Message("procs_regist_message"), flag_(flag), requester_(requester) {}

ProcsRegistMessage::~ProcsRegistMessage() = default;

int ProcsRegistMessage::MessageHandle(void* target) {
    auto* task = static_cast<Framework::Task*>(target);
    if (task == nullptr) {
        return -1;
    }
    // AddConsumer refuses (and logs) a null requester; its result is the answer either way.
    const long result = task->AddConsumer(flag_, "", requester_);
    // The table lets the producer see which event kinds anybody still wants.
    if (auto* mixed = dynamic_cast<MixedTask*>(task)) {
        mixed->AddSubscription(flag_);
    }
    return static_cast<int>(result);
}

}  // namespace Engine
