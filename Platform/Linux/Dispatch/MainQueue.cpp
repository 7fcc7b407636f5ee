#include "Platform/Linux/Dispatch/MainQueue.h"

#include <cstdlib>
#include <memory>

namespace platform {

MainQueue& MainQueue::shared() {
    // Never destroyed: other threads hand over work until the process ends.
    static MainQueue& queue = *std::unique_ptr<MainQueue>(new MainQueue).release();
    return queue;
}

void MainQueue::async(Completion<> work) {
    const MutexGuard guard(mutex);
    ready.push_back(std::move(work));
    changed.notifyOne();
}

void MainQueue::asyncAfter(double seconds, Completion<> work) {
    const MutexGuard guard(mutex);
    timers.add(TimerHeap::instantAfter(seconds), std::move(work));
    changed.notifyOne();
}

void MainQueue::stop(int status) {
    const MutexGuard guard(mutex);
    exitStatus = status;
    changed.notifyOne();
}

void MainQueue::serve() {
    for (;;) next()();
}

Completion<> MainQueue::next() {
    const MutexGuard guard(mutex);
    for (;;) {
        // Other threads still run: destructors of static objects must not.
        if (exitStatus) std::_Exit(*exitStatus);
        while (auto due = timers.takeDue(TimerHeap::Clock::now())) ready.push_back(std::move(*due));
        if (!ready.empty()) {
            Completion<> work = std::move(ready.front());
            ready.pop_front();
            return work;
        }
        if (timers.isEmpty())
            changed.wait(mutex);
        else
            changed.waitUntil(mutex, timers.firstDue());
    }
}

}  // namespace platform
