#pragma once

#include <memory>
#include <string>

#include "NetCollectModule.h"
#include "ProcessCollectModule.h"
#include "framework/Engine.h"

// An engine running the real process-collect and network-collect modules.
class CollectHost {
public:
    CollectHost() : engine_(std::make_unique<Framework::Engine>()) {
        processModule_.Init();
        netModule_.Init();
    }
    ~CollectHost() {
        engine_->StopAll();
        netModule_.UnInit();
        processModule_.UnInit();
    }

    Framework::Engine& engine() { return *engine_; }

    template <class T>
    T* Find(const std::string& taskName) {
        return dynamic_cast<T*>(engine_->FindTask(taskName));
    }

private:
    std::unique_ptr<Framework::Engine> engine_;
    Engine::ProcessCollectModule processModule_;
    Engine::NetCollectModule netModule_;
};
