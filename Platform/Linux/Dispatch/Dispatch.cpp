#include "Platform/Dispatch.h"

#include <utility>

#include "Platform/Linux/Dispatch/EventLoop.h"
#include "Platform/Linux/Dispatch/MainQueue.h"
#include "Platform/Linux/Recording/RecordedSystem.h"

namespace platform {

void DispatchQueue::async(Work work) const {
    if (isMain())
        MainQueue::shared().async(std::move(work));
    else
        EventLoopPool::shared().add(std::move(work));
}

void DispatchQueue::asyncAfter(double seconds, Work work) const {
    work = recording::followedWork(seconds, std::move(work));
    if (isMain()) return MainQueue::shared().asyncAfter(seconds, std::move(work));
    if (!(seconds > 0)) return async(std::move(work));
    EventLoop& loop = EventLoopPool::shared().currentOrNext();
    loop.perform([&loop, due = TimerHeap::instantAfter(seconds), work = std::move(work)]() mutable {
        loop.at(due, std::move(work));
    });
}

void dispatch_main() { MainQueue::shared().serve(); }

}  // namespace platform
