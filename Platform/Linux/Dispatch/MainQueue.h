// The serial queue of the main thread. Any thread hands over work; `serve` runs it, one piece at a
// time, in order, timers when they are due. `stop` is how the platform's own shutdown ends the
// process.
#pragma once

#include <deque>
#include <optional>

#include "Platform/Common/Completion.h"
#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Dispatch/TimerHeap.h"

namespace platform {

class MainQueue {
public:
    static MainQueue& shared();

    void async(Completion<> work);
    void asyncAfter(double seconds, Completion<> work);

    // Any thread, also a waiter for signals: the process leaves with `status` as soon as the piece
    // of work under way has ended, whatever is still queued. Neither static objects nor other
    // threads are waited for.
    void stop(int status);

    // Runs work until `stop`; called on the main thread.
    [[noreturn]] void serve();

private:
    MainQueue() = default;
    // The next piece of work that is due; waits for it. Leaves the process after `stop`.
    Completion<> next();

    Mutex mutex;
    Condition changed;
    std::deque<Completion<>> ready GUARDED_BY(mutex);
    TimerHeap timers GUARDED_BY(mutex);
    std::optional<int> exitStatus GUARDED_BY(mutex);
};

}  // namespace platform
