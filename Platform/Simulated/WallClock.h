// The wall clock of the simulated machine. It goes on with virtual time and can be set back and
// forth, which timers don't notice. Any thread.
#pragma once

#include "Platform/Common/Date.h"
#include "Platform/Common/Mutex.h"
#include "Platform/Simulated/Scheduler.h"

namespace platform::simulated {

class WallClock {
public:
    explicit WallClock(const Scheduler& timeSource) : scheduler(timeSource) {}

    Date now() const;
    void set(Date date);
    // Moves the clock by `seconds`, back if negative.
    void jump(double seconds);

private:
    const Scheduler& scheduler;
    mutable Mutex mutex;
    // What the clock showed at virtual time 0: 2026-01-01T00:00:00Z.
    double offset GUARDED_BY(mutex) = 788918400.0;
};

}  // namespace platform::simulated
