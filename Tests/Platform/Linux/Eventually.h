// Waiting, for a bounded time, for what another thread or the kernel will do.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace platform {

// Whether `condition` comes to hold within the test's patience.
inline bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace platform
