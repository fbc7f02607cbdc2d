#pragma once

#include <chrono>

namespace Engine {

// Milliseconds of the monotonic clock: for intervals that must not jump with the wall clock.
inline long long SteadyNowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace Engine
