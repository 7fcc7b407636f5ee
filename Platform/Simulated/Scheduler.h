// The one scheduler that every callback, completion and timer of the simulated platform goes
// through. Which of the events that are ready runs next is drawn from the seed, or is the one that
// was queued first, or several run at once on real threads, or by turns: step by step, at each lock
// and each call of the seam the seed may let another one go on. Time is virtual and moves only when
// nothing is ready; with threads it is the real clock, sped up. Any thread may queue events; only
// the test's own thread runs them (`runUntilIdle` and its kin), never from inside an event.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <semaphore>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Platform/Common/Completion.h"
#include "Platform/Common/Mutex.h"

namespace platform::simulated {

enum class Order {
    asQueued,  // the event that became ready first runs first
    drawn,     // any ready event may run next; the seed decides
    byTurns,   // and events overlap: at each step of one another may go on; the seed decides
    threads,   // several at once, on real threads
};

struct Options {
    Order order = Order::asQueued;
    std::uint64_t seed = 1;
    unsigned threads = 4;    // with Order::threads
    double timeScale = 500;  // with Order::threads: virtual seconds in a real one
};

class Scheduler {
public:
    // Events of one lane run one at a time, in the order in which they became ready.
    using Lane = std::uint64_t;
    static constexpr Lane noLane = 0;

    explicit Scheduler(const Options& options);
    ~Scheduler();
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    Lane makeLane();

    // Queues a callback or completion. It is ready at once, or after a drawn latency (see
    // `setLatency`). `label` is a literal that names it in the trace.
    void deliver(const char* label, Completion<> work, Lane lane = noLane);
    // The same, ready `seconds` from now at the earliest. Still counted as something under way:
    // `runUntilIdle` waits for it.
    void deliverAfter(double seconds, const char* label, Completion<> work, Lane lane = noLane);
    // Queues a timer: `runUntilIdle` leaves it alone, `advance` reaches it.
    void startTimer(double seconds, const char* label, Completion<> work, Lane lane = noLane);

    // Virtual seconds since the start.
    double now() const;
    Order order() const { return options.order; }
    std::uint64_t seed() const { return options.seed; }

    // Runs one ready event; false if there is none. Not with threads.
    bool runOne();
    // Runs until only timers are left.
    void runUntilIdle();
    // Lets `seconds` pass, running what falls due on the way and all that follows from it.
    void advance(double seconds);
    // Runs everything, timers too, however far away.
    void runToEnd();

    // Each later delivery takes a drawn time between 0 and `seconds`; 0 is where it starts.
    void setLatency(double seconds);
    // Called after each event, on the test's thread; after each turn of one with Order::byTurns. Not with
    // threads.
    void setAfterEachEvent(std::function<void()> check);

    // With Order::byTurns, inside an event: others may go on here before it does.
    void step();
    // Others go on first, as this event waits for something that one of them does. False where nothing
    // of the kind is possible: outside of events, and in every other order.
    bool giveWay();

    // A number below `bound`, from the seed.
    std::uint64_t draw(std::uint64_t bound);
    // True once in `chances` calls in the mean, when the order is drawn or threaded; false in an
    // exact sequence. For the liberties that a contract allows.
    bool takesLiberty(std::uint64_t chances);

    // A number that stands for which events ran, in which order and when.
    std::uint64_t fingerprint() const;
    // The labels of the last events, oldest first.
    std::vector<std::string> recentEvents() const;

    // Stops the threads, drops all events and takes no more.
    void end();

private:
    struct Event {
        double due = 0;
        std::uint64_t number = 0;
        const char* label = "";
        Lane lane = noLane;
        bool isTimer = false;
        Completion<> work;
    };
    using WaitingKey = std::pair<double, std::uint64_t>;
    struct LaneState {
        bool isBusy = false;
        double lastDue = 0;
        std::list<Event> backlog;  // no memory while empty
    };

    // An event that runs by turns with others, on a thread of its own.
    struct Strand;
    Strand* chooseStrand();
    bool runOneTurn();
    void endStrands();
    void workOnStrand(Strand& strand);

    void queue(double delay, bool isTimer, const char* label, Completion<> work, Lane lane);
    double currentTime() const REQUIRES(mutex);
    void promoteDueEvents() REQUIRES(mutex);
    void makeReady(Event event) REQUIRES(mutex);
    Event takeReady() REQUIRES(mutex);
    void finish(const Event& event) REQUIRES(mutex);
    void record(const Event& event) REQUIRES(mutex);
    bool onlyTimersAreLeft() const REQUIRES(mutex);
    bool moveTo(double limit, bool evenForTimers);
    void workOnThread();
    void waitForThreads(bool evenForTimers);

    const Options options;
    const std::chrono::steady_clock::time_point realStart = std::chrono::steady_clock::now();

    mutable Mutex mutex;
    Condition changed;
    std::mt19937_64 random GUARDED_BY(mutex);
    double virtualNow GUARDED_BY(mutex) = 0;
    double latency GUARDED_BY(mutex) = 0;
    std::uint64_t lastNumber GUARDED_BY(mutex) = 0;
    Lane lastLane GUARDED_BY(mutex) = noLane;
    std::map<WaitingKey, Event> waiting GUARDED_BY(mutex);
    std::size_t waitingDeliveries GUARDED_BY(mutex) = 0;
    std::deque<Event> ready GUARDED_BY(mutex);
    std::unordered_map<Lane, LaneState> lanes GUARDED_BY(mutex);
    std::size_t running GUARDED_BY(mutex) = 0;
    bool hasEnded GUARDED_BY(mutex) = false;
    std::uint64_t traceHash GUARDED_BY(mutex) = 14695981039346656037u;
    std::deque<std::pair<double, const char*>> trace GUARDED_BY(mutex);

    // Touched by the test's thread alone.
    bool isRunningEvent = false;
    std::vector<std::unique_ptr<Strand>> strands;
    std::vector<Strand*> paused;
    std::vector<Strand*> idle;
    // Whoever has the turn gives it back to the test's thread.
    std::binary_semaphore turnIsOver{0};
    std::atomic<bool> isEnding = false;
    std::function<void()> afterEachEvent;
    std::vector<std::thread> threads;
};

}  // namespace platform::simulated
