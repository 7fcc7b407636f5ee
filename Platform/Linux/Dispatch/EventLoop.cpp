#include "Platform/Linux/Dispatch/EventLoop.h"

#include <pthread.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <thread>

#include "Platform/Linux/LastWords.h"

namespace platform {
namespace {

thread_local EventLoop* loopOfThread = nullptr;

// Without loops of events the process cannot begin.
FileDescriptor orEnd(int descriptor) {
    if (descriptor < 0) endForLackOf("an event loop", errno);
    return FileDescriptor(descriptor);
}

// Signals are for the threads that wait for them; a write to a closed socket must not raise one.
void blockAllSignals() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

void signalEvent(int descriptor) {
    const std::uint64_t one = 1;
    while (::write(descriptor, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

}  // namespace

EventLoop::EventLoop(SharedWork& work)
    : sharedWork(work),
      epoll(orEnd(::epoll_create1(EPOLL_CLOEXEC))),
      wakeUp(orEnd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {
    // Reported once for each write, so that no one needs to read the counter.
    epoll_event event{EPOLLIN | EPOLLET, {.ptr = nullptr}};
    if (::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, wakeUp.get(), &event) != 0)
        endForLackOf("a watch for events", errno);
    event = {EPOLLIN | EPOLLEXCLUSIVE, {.ptr = &sharedWork}};
    if (::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, sharedWork.descriptor(), &event) != 0)
        endForLackOf("a watch for events", errno);
}

EventLoop* EventLoop::current() { return loopOfThread; }

void EventLoop::run() {
    loopOfThread = this;
    for (;;) {
        // What a piece of work hands over is mostly done at once; asking for events in between would
        // cost a system call.
        for (int round = 0; round < roundsBetweenWaits && isBusy(); ++round) {
            runInbox();
            runTurns();
        }
        runTimers();
        waitForEvents();
    }
}

void EventLoop::post(Completion<> work) {
    {
        MutexGuard guard(inboxLock);
        inbox.push_back(std::move(work));
        inboxHasWork.store(true);
    }
    // Either the loop sees the work before it sleeps, or this sees that it sleeps.
    if (isAsleep.exchange(false)) signalEvent(wakeUp.get());
}

void EventLoop::askForTurn(std::shared_ptr<Source> source) {
    if (std::exchange(source->hasAskedForTurn, true)) return;
    turns.push_back(std::move(source));
}

void EventLoop::askForNextTurn(std::shared_ptr<Source> source) {
    if (std::exchange(source->hasAskedForNextTurn, true)) return;
    nextTurns.push_back(std::move(source));
}

void EventLoop::at(TimerHeap::Clock::time_point due, Completion<> work) {
    timers.add(due, std::move(work));
}

int EventLoop::watch(int descriptor, std::uint32_t wanted, Source& source) {
    epoll_event event{wanted, {.ptr = &source}};
    return ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, descriptor, &event) == 0 ? 0 : errno;
}

int EventLoop::changeWatch(int descriptor, std::uint32_t wanted, Source& source) {
    epoll_event event{wanted, {.ptr = &source}};
    return ::epoll_ctl(epoll.get(), EPOLL_CTL_MOD, descriptor, &event) == 0 ? 0 : errno;
}

void EventLoop::stopWatching(int descriptor) {
    epoll_event ignored{};
    ::epoll_ctl(epoll.get(), EPOLL_CTL_DEL, descriptor, &ignored);
}

void EventLoop::forget(const Source& source) {
    for (int i = nextEvent; i < eventCount; ++i) {
        auto& event = events[static_cast<std::size_t>(i)];
        if (event.data.ptr == &source) event.data.ptr = nullptr;
    }
}

void EventLoop::runInbox() {
    if (!inboxHasWork.load()) return;
    std::vector<Completion<>> work;
    {
        MutexGuard guard(inboxLock);
        work.swap(inbox);
        inboxHasWork.store(false);
    }
    for (auto& piece : work) piece();
}

void EventLoop::runTurns() {
    for (int count = 0; hasTurns() && count < turnsAtOnce; ++count) {
        if (nextTurns.empty()) {
            runOrdinaryTurn();
            continue;
        }
        const std::shared_ptr<Source> source = std::move(nextTurns.back());
        nextTurns.pop_back();
        source->hasAskedForNextTurn = false;
        source->takeTurn();
    }
}

void EventLoop::runOrdinaryTurn() {
    const std::shared_ptr<Source> source = std::move(turns[firstTurn++]);
    if (firstTurn == turns.size()) {
        turns.clear();
        firstTurn = 0;
    } else if (firstTurn > 4096) {
        turns.erase(turns.begin(), turns.begin() + static_cast<std::ptrdiff_t>(firstTurn));
        firstTurn = 0;
    }
    source->hasAskedForTurn = false;
    source->takeTurn();
}

void EventLoop::runTimers() {
    if (timers.isEmpty()) return;
    const auto now = TimerHeap::Clock::now();
    while (auto work = timers.takeDue(now)) (*work)();
}

int EventLoop::waitMilliseconds() const {
    if (hasTurns()) return 0;
    if (timers.isEmpty()) return -1;
    const auto left = timers.firstDue() - TimerHeap::Clock::now();
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return static_cast<int>(std::clamp<std::int64_t>(milliseconds, 0, 3'600'000));
}

void EventLoop::waitForEvents() {
    isAsleep.store(true);
    const int timeout = inboxHasWork.load() ? 0 : waitMilliseconds();
    eventCount = std::max(0, ::epoll_wait(epoll.get(), events.data(), eventsAtOnce, timeout));
    isAsleep.store(false);
    for (nextEvent = 0; nextEvent < eventCount;) {
        const epoll_event event = events[static_cast<std::size_t>(nextEvent++)];
        if (event.data.ptr == &sharedWork) {
            if (auto work = sharedWork.take()) work();
        } else if (event.data.ptr != nullptr) {
            static_cast<Source*>(event.data.ptr)->handleEvents(event.events);
        }
    }
    eventCount = nextEvent = 0;
}

SharedWork::SharedWork()
    : available(orEnd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE))) {}

void SharedWork::add(Completion<> work) {
    {
        MutexGuard guard(lock);
        waiting.push_back(std::move(work));
    }
    signalEvent(available.get());
}

Completion<> SharedWork::take() {
    // The counter is a semaphore: whoever takes one from it owns one piece.
    std::uint64_t one = 0;
    if (::read(available.get(), &one, sizeof one) != sizeof one) return {};
    MutexGuard guard(lock);
    Completion<> work = std::move(waiting[next++]);
    if (next == waiting.size()) {
        waiting.clear();
        next = 0;
    } else if (next > 1024 && next * 2 > waiting.size()) {
        waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(next));
        next = 0;
    }
    return work;
}

EventLoopPool& EventLoopPool::shared() {
    // Never destroyed: its threads run until the process ends.
    static EventLoopPool& pool = *std::unique_ptr<EventLoopPool>(new EventLoopPool).release();
    return pool;
}

EventLoopPool::EventLoopPool() {
    const unsigned count = std::max(2U, std::thread::hardware_concurrency());
    for (unsigned i = 0; i < count; ++i) loops_.push_back(std::make_unique<EventLoop>(work_));
    for (const auto& loop : loops_) {
        std::thread([&loop = *loop] {
            blockAllSignals();
            ::pthread_setname_np(::pthread_self(), "queue");
            loop.run();
        }).detach();
    }
}

EventLoop& EventLoopPool::currentOrNext() {
    if (EventLoop* const loop = EventLoop::current()) return *loop;
    return *loops_[nextLoop.fetch_add(1, std::memory_order_relaxed) % loops_.size()];
}

}  // namespace platform
