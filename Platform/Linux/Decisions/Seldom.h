// Keeps a complaint that each flow could give rise to from filling the log: it is due once a minute.
// Any thread.
#pragma once

#include <chrono>

#include "Platform/Common/Mutex.h"

namespace platform::interception {

class Seldom {
public:
    bool isDue() {
        const auto now = std::chrono::steady_clock::now();
        const MutexGuard guard(lock);
        if (now < next) return false;
        next = now + std::chrono::minutes(1);
        return true;
    }

private:
    Mutex lock;
    std::chrono::steady_clock::time_point next GUARDED_BY(lock);
};

}  // namespace platform::interception
