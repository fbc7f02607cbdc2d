#include "collect/ProcsMessage.h"

#include <utility>

#include "collect/AbstractMessageReceiver.h"
#include "framework/Task.h"

namespace Engine {

ProcsMessage::ProcsMessage(int pid, unsigned int flag, std::shared_ptr<procInfo> record)
    : Framework::Message("procs_message"), pid_(pid), flag_(flag), record_(std::move(record)) {}

ProcsMessage::~ProcsMessage() = default;

int ProcsMessage::MessageHandle(void* target) {
    auto* task = static_cast<Framework::Task*>(target);
    // A task that is no receiver simply does not take process events.
    auto* receiver = dynamic_cast<AbstractMessageReceiver*>(task);
    if (receiver == nullptr) {
        return 0;
    }
    receiver->ProcsMessageAction(pid_, flag_, record_);
    return 0;
}

}  // namespace Engine
