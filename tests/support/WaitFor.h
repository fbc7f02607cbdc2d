#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace TestSupport {

// Polls `done` every 20 ms until it holds or `timeoutMs` has passed; says whether it held.
inline bool WaitFor(const std::function<bool()>& done, long timeoutMs = 30000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

}  // namespace TestSupport
