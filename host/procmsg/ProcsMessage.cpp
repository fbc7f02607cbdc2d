#include "collect/ProcsMessage.h"

#include <atomic>
#include <string>
#include <utility>

#include "collect/AbstractMessageReceiver.h"
#include "framework/Task.h"
#include "sdk/HostLog.h"

namespace Engine {

ProcsMessage::ProcsMessage(int pid, unsigned int flag, std::shared_ptr<procInfo> record)
    : Framework::Message("procs_message"), pid_(pid), flag_(flag), record_(std::move(record)) {}

ProcsMessage::~ProcsMessage() = default;

int ProcsMessage::MessageHandle(void* target) {
    auto* task = static_cast<Framework::Task*>(target);
    // The receiver base is found by dynamic_cast, not at MixedTask's offset from the task
    // base: for every task of that shape it is the same object, and for any other shape an
    // offset would point into the wrong object instead of finding no receiver.
    auto* receiver = dynamic_cast<AbstractMessageReceiver*>(task);
    if (receiver == nullptr) {
        // Logged once, then once per thousand: a misrouted subscription repeats with every event.
        static std::atomic<unsigned long> ignored{0};
        const unsigned long count = ++ignored;
        if (count == 1 || count % 1000 == 0) {
            HOST_LOG_WARNING("task " + (task != nullptr ? task->GetTaskName() : std::string("(none)")) +
                             " receives no process events: event " + std::to_string(flag_) + " of pid " +
                             std::to_string(pid_) + " ignored (" + std::to_string(count) + " so far)");
        }
        return 0;
    }
    receiver->ProcsMessageAction(pid_, flag_, record_);
    return 0;
}

}  // namespace Engine
