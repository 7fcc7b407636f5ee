// One thread of the pool behind the global queues: it waits for descriptors, runs timers and gives
// turns to what is ready. Sockets belong to one loop each, and everything about a socket happens on
// its loop's thread, so that moving bytes takes no lock and no wake-up. Loops live as long as the
// process.
#pragma once

#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Platform/Common/Completion.h"
#include "Platform/Common/Mutex.h"
#include "Platform/Common/ThreadAnnotations.h"
#include "Platform/Foundation.h"
#include "Platform/Linux/Dispatch/TimerHeap.h"
#include "Platform/Linux/FileDescriptor.h"

namespace platform {

class SharedWork;

class EventLoop {
public:
    // What a loop watches or gives turns to. Both operations run on the loop's thread.
    class Source {
    public:
        virtual ~Source() = default;
        // The watched descriptor has these epoll events.
        virtual void handleEvents(std::uint32_t events) = 0;
        // The turn that was asked for.
        virtual void takeTurn() {}

    private:
        friend class EventLoop;
        bool hasAskedForTurn = false;
        bool hasAskedForNextTurn = false;
    };

    // `work` is the queue that all loops of the pool serve.
    explicit EventLoop(SharedWork& work);
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // The loop of the calling thread, or null.
    static EventLoop* current();
    bool isCurrent() const { return current() == this; }

    // Serves the loop for good.
    [[noreturn]] void run();

    // Any thread: hands `work` to the loop's thread. Never runs it inside the call.
    void post(Completion<> work);
    // Any thread: does `work` at once on the loop's own thread, else hands it over.
    template <class Work>
    void perform(Work&& work) {
        if (isCurrent())
            work();
        else
            post(std::forward<Work>(work));
    }

    // The rest is for the loop's own thread.

    // Gives `source` one turn soon, however often it asks before. Turns come in the order asked.
    void askForTurn(std::shared_ptr<Source> source);
    // The same ahead of all turns that were asked for the ordinary way: for the short steps that
    // complete what an ordinary turn began.
    void askForNextTurn(std::shared_ptr<Source> source);
    // Runs `work` once, when `due` has come or `seconds` have passed.
    void at(TimerHeap::Clock::time_point due, Completion<> work);
    void after(double seconds, Completion<> work) {
        at(TimerHeap::instantAfter(seconds), std::move(work));
    }

    // Reports the descriptor's events to `source` from now on: with EPOLLET in `events` each change
    // once. Returns 0 or an errno. Closing the descriptor ends it; `forget` has to follow before
    // `source` dies.
    int watch(int descriptor, std::uint32_t events, Source& source);
    // Replaces the events of a watched descriptor; as `watch`.
    int changeWatch(int descriptor, std::uint32_t events, Source& source);
    void stopWatching(int descriptor);
    // Drops events already fetched for `source`.
    void forget(const Source& source);

private:
    static constexpr int eventsAtOnce = 128;
    static constexpr int roundsBetweenWaits = 4;
    static constexpr int turnsAtOnce = 16;

    bool hasTurns() const { return !nextTurns.empty() || firstTurn < turns.size(); }
    bool isBusy() const { return inboxHasWork.load() || hasTurns(); }
    void runInbox();
    void runTurns();
    void runOrdinaryTurn();
    void runTimers();
    void waitForEvents();
    int waitMilliseconds() const;

    SharedWork& sharedWork;
    FileDescriptor epoll;
    FileDescriptor wakeUp;

    Mutex inboxLock;
    std::vector<Completion<>> inbox GUARDED_BY(inboxLock);
    std::atomic<bool> inboxHasWork{false};
    std::atomic<bool> isAsleep{false};

    std::vector<std::shared_ptr<Source>> turns;
    std::size_t firstTurn = 0;
    std::vector<std::shared_ptr<Source>> nextTurns;
    TimerHeap timers;
    std::array<epoll_event, eventsAtOnce> events;
    int eventCount = 0;
    int nextEvent = 0;
};

// The work handed to the global queues: any loop that is free takes the next piece, so that one
// that is busy holds up nothing. Any thread.
class SharedWork {
public:
    SharedWork();
    void add(Completion<> work);
    // The next piece, or an empty completion.
    Completion<> take();
    // Readable while there is work.
    int descriptor() const { return available.get(); }

private:
    FileDescriptor available;
    Mutex lock;
    std::vector<Completion<>> waiting GUARDED_BY(lock);
    std::size_t next GUARDED_BY(lock) = 0;
};

// All loops, about one a core and two at least. Made with the first use, lives for good.
class EventLoopPool {
public:
    static EventLoopPool& shared();

    // The calling thread's loop if it has one, else the next in turn.
    EventLoop& currentOrNext();
    void add(Completion<> work) { work_.add(std::move(work)); }
    const std::vector<std::unique_ptr<EventLoop>>& loops() const { return loops_; }

private:
    EventLoopPool();

    SharedWork work_;
    std::vector<std::unique_ptr<EventLoop>> loops_;
    std::atomic<std::size_t> nextLoop{0};
};

}  // namespace platform
