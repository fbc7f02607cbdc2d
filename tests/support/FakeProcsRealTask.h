#pragma once

#include <memory>

#include "collect/MixedTask.h"
#include "collect/ProcsMessage.h"

namespace TestSupport {

// "procs_real_task": accepts subscriptions like the real one (they arrive as
// ProcsRegistMessages in its queue and are handled on its thread) and publishes
// the events the test emits to the subscribers' queues.
class FakeProcsRealTask : public Engine::MixedTask {
public:
    FakeProcsRealTask();

    // Publishes one event to the subscribers of `flag`; returns how many got it.
    int Emit(int pid, unsigned int flag, const std::shared_ptr<Engine::ProcsMessage::procInfo>& record);
    // Waits (up to `timeoutMs`) until `flag` has at least `count` subscriptions.
    bool WaitForSubscriptions(unsigned int flag, int count, long timeoutMs);
};

}  // namespace TestSupport
