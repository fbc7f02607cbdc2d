#pragma once

#include <memory>

#include "collect/MixedTask.h"
#include "collect/ProcsMessage.h"

namespace TestSupport {

// "procs_real_task": accepts subscriptions like the real one (they arrive as
// ProcsRegistMessages in its queue and are handled on its thread); tests hand
// events to the subscribing task directly.
class FakeProcsRealTask : public Engine::MixedTask {
public:
    FakeProcsRealTask();
};

}  // namespace TestSupport
