#pragma once

#include <memory>

#include "collect/MixedTask.h"
#include "collect/ProcsMessage.h"
#include "support/WaitFor.h"

namespace TestSupport {

// "procs_real_task": accepts subscriptions like the real one (they arrive as
// ProcsRegistMessages in its queue and are handled on its thread) and publishes
// the events the test emits to the subscribers' queues.
class FakeProcsRealTask : public Engine::MixedTask {
public:
    FakeProcsRealTask()
        : Engine::MixedTask("procs_real_task", "procs_collect_feature",
                            Framework::TaskCondition::TASK_TYPE_MESSAGE, 4096) {}

    // Publishes one event to the subscribers of `flag`; returns how many got it.
    int Emit(int pid, unsigned int flag, const std::shared_ptr<Engine::ProcsMessage::procInfo>& record) {
        return PublishMsg(flag, std::make_shared<Engine::ProcsMessage>(pid, flag, record));
    }
    // Waits (up to `timeoutMs`) until `flag` has at least `count` subscriptions.
    bool WaitForSubscriptions(unsigned int flag, int count, long timeoutMs) {
        return WaitFor([&] { return GetSubscriptionCount(flag) >= count; }, timeoutMs);
    }
};

}  // namespace TestSupport
