#pragma once

#include <Poco/AutoPtr.h>

#include <thread>

#include "framework/Engine.h"
#include "framework/Task.h"

namespace Framework {

// One registered task: the engine's reference to it and the thread that runs it.
struct Engine::Entry {
    const Module* owner = nullptr;
    Poco::AutoPtr<Task> task;
    bool system = false;
    // Set once an unregistration has begun; the entry stays until the thread is joined.
    bool stopping = false;
    std::thread thread;
};

}  // namespace Framework
