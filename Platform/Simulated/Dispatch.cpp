#include "Platform/Dispatch.h"

#include <cstdlib>

#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/Machine.h"

namespace platform {
namespace {

simulated::Scheduler::Lane laneOf(const DispatchQueue& queue) {
    return queue.isMain() ? simulated::machine().mainQueue : simulated::Scheduler::noLane;
}

const char* labelOf(const DispatchQueue& queue, bool isTimer) {
    if (queue.isMain()) return isTimer ? "main queue timer" : "main queue";
    return isTimer ? "global queue timer" : "global queue";
}

}  // namespace

void DispatchQueue::async(Work work) const {
    simulated::checkPlatformCall("DispatchQueue.async");
    simulated::machine().scheduler.deliver(labelOf(*this, false), std::move(work), laneOf(*this));
}

void DispatchQueue::asyncAfter(double seconds, Work work) const {
    simulated::checkPlatformCall("DispatchQueue.asyncAfter");
    auto& scheduler = simulated::machine().scheduler;
    if (seconds <= 0) return async(std::move(work));
    scheduler.startTimer(seconds, labelOf(*this, true), std::move(work), laneOf(*this));
}

// A process that hands its main thread over plays its story to the end and exits.
void dispatch_main() {
    simulated::machine().scheduler.runToEnd();
    std::exit(EXIT_SUCCESS);
}

}  // namespace platform
