#include "Platform/Simulated/Scheduler.h"

#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <string_view>

#include "Platform/Simulated/Contracts.h"

namespace platform::simulated {
namespace {

constexpr std::size_t traceLength = 64;
// Of so many steps one lets others go on, in the mean.
constexpr std::uint64_t stepsInATurn = 4;

thread_local std::binary_semaphore* turnOfThisStrand = nullptr;

// This thread, and those that it makes from now on. Where one runs at a time, the turn passes a hundred
// times as fast if no other processor has to wake up for it. Without the right to it, it is only slow.
void stayOnOneProcessor() {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(static_cast<unsigned>(std::max(sched_getcpu(), 0)), &processors);
    sched_setaffinity(0, sizeof processors, &processors);
}

}  // namespace

struct Scheduler::Strand {
    explicit Strand(Scheduler& scheduler)
        : thread([this, &scheduler] { scheduler.workOnStrand(*this); }) {}
    std::binary_semaphore mayGo{0};
    Event event;
    bool hasEvent = false;  // false while idle, and a turn without one is the end
    std::thread thread;
};

Scheduler::Scheduler(const Options& chosen) : options(chosen), random(chosen.seed) {
    if (options.order == Order::byTurns) stayOnOneProcessor();
    if (options.order != Order::threads) return;
    for (unsigned i = 0; i < options.threads; ++i) threads.emplace_back([this] { workOnThread(); });
}

Scheduler::~Scheduler() { end(); }

Scheduler::Lane Scheduler::makeLane() {
    const MutexGuard guard(mutex);
    return ++lastLane;
}

void Scheduler::deliver(const char* label, Completion<> work, Lane lane) {
    queue(0, false, label, std::move(work), lane);
}

void Scheduler::deliverAfter(double seconds, const char* label, Completion<> work, Lane lane) {
    queue(seconds, false, label, std::move(work), lane);
}

void Scheduler::startTimer(double seconds, const char* label, Completion<> work, Lane lane) {
    queue(std::max(seconds, 0.0), true, label, std::move(work), lane);
}

void Scheduler::queue(double delay, bool isTimer, const char* label, Completion<> work, Lane lane) {
    // Whatever is dropped at the end is let go outside the lock.
    Event event;
    event.label = label;
    event.lane = lane;
    event.isTimer = isTimer;
    event.work = std::move(work);
    {
        const MutexGuard guard(mutex);
        if (hasEnded) return;
        event.number = ++lastNumber;
        if (!isTimer && latency > 0)
            delay += latency * std::uniform_real_distribution<double>(0, 1)(random);
        event.due = currentTime() + delay;
        if (lane != noLane && !isTimer) {
            auto& state = lanes[lane];
            state.lastDue = std::max(state.lastDue, event.due);
            event.due = state.lastDue;
        }
        if (event.due <= currentTime()) {
            promoteDueEvents();
            makeReady(std::move(event));
        } else {
            if (!isTimer) ++waitingDeliveries;
            const WaitingKey key{event.due, event.number};
            waiting.emplace(key, std::move(event));
        }
    }
    changed.notifyAll();
}

double Scheduler::now() const {
    const MutexGuard guard(mutex);
    return currentTime();
}

double Scheduler::currentTime() const {
    if (options.order != Order::threads) return virtualNow;
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - realStart;
    return elapsed.count() * options.timeScale;
}

void Scheduler::promoteDueEvents() {
    const double time = currentTime();
    while (!waiting.empty() && waiting.begin()->first.first <= time) {
        Event event = std::move(waiting.begin()->second);
        waiting.erase(waiting.begin());
        if (!event.isTimer) --waitingDeliveries;
        makeReady(std::move(event));
    }
}

void Scheduler::makeReady(Event event) {
    // In an exact sequence events run one after the other as they became ready, which keeps every
    // lane in order by itself.
    if (event.lane != noLane && options.order != Order::asQueued) {
        auto& lane = lanes[event.lane];
        if (lane.isBusy) {
            lane.backlog.push_back(std::move(event));
            return;
        }
        lane.isBusy = true;
    }
    ready.push_back(std::move(event));
}

Scheduler::Event Scheduler::takeReady() {
    if (options.order != Order::asQueued)
        std::swap(ready.front(), ready[static_cast<std::size_t>(random() % ready.size())]);
    Event event = std::move(ready.front());
    ready.pop_front();
    record(event);
    ++running;
    return event;
}

void Scheduler::finish(const Event& event) {
    --running;
    const auto found = lanes.find(event.lane);
    if (found == lanes.end()) return;
    auto& lane = found->second;
    lane.isBusy = false;
    if (!lane.backlog.empty()) {
        Event next = std::move(lane.backlog.front());
        lane.backlog.pop_front();
        makeReady(std::move(next));
    } else if (lane.lastDue <= currentTime()) {
        lanes.erase(found);  // as if it had never been used
    }
}

void Scheduler::record(const Event& event) {
    const auto mix = [this](std::uint64_t value)
                         REQUIRES(mutex) { traceHash = (traceHash ^ value) * 1099511628211u; };
    mix(event.number);
    mix(static_cast<std::uint64_t>(event.due * 1e9));
    for (const char letter : std::string_view(event.label)) mix(static_cast<unsigned char>(letter));
    trace.emplace_back(event.due, event.label);
    if (trace.size() > traceLength) trace.pop_front();
}

bool Scheduler::onlyTimersAreLeft() const {
    return ready.empty() && running == 0 && waitingDeliveries == 0;
}

bool Scheduler::runOne() {
    if (isRunningEvent) {
        breach("the test runs the scheduler from inside an event");
        return false;
    }
    if (options.order == Order::byTurns) return runOneTurn();
    Event event;
    {
        const MutexGuard guard(mutex);
        promoteDueEvents();
        if (ready.empty()) return false;
        event = takeReady();
    }
    isRunningEvent = true;
    event.work();
    checkNoLockIsHeld(event.label);
    isRunningEvent = false;
    {
        const MutexGuard guard(mutex);
        finish(event);
    }
    if (afterEachEvent) afterEachEvent();
    return true;
}

bool Scheduler::runOneTurn() {
    Strand* const strand = chooseStrand();
    if (strand == nullptr) return false;
    isRunningEvent = true;
    strand->mayGo.release();
    turnIsOver.acquire();
    isRunningEvent = false;
    if (strand->hasEvent) {
        paused.push_back(strand);
    } else {
        idle.push_back(strand);
        const MutexGuard guard(mutex);
        finish(strand->event);
    }
    if (afterEachEvent) afterEachEvent();
    return true;
}

// One that was paused, or one for an event that is ready; null if there is neither.
Scheduler::Strand* Scheduler::chooseStrand() {
    const MutexGuard guard(mutex);
    promoteDueEvents();
    const std::size_t choices = paused.size() + ready.size();
    if (choices == 0) return nullptr;
    const auto chosen = static_cast<std::size_t>(random() % choices);
    if (chosen < paused.size()) {
        std::swap(paused[chosen], paused.back());
        auto* const strand = paused.back();
        paused.pop_back();
        return strand;
    }
    if (idle.empty()) {
        strands.push_back(std::make_unique<Strand>(*this));
        idle.push_back(strands.back().get());
    }
    auto* const strand = idle.back();
    idle.pop_back();
    strand->event = takeReady();
    strand->hasEvent = true;
    return strand;
}

void Scheduler::workOnStrand(Strand& strand) {
    turnOfThisStrand = &strand.mayGo;
    for (;;) {
        strand.mayGo.acquire();
        if (!strand.hasEvent) return;
        strand.event.work();
        strand.event.work = {};
        checkNoLockIsHeld(strand.event.label);
        strand.hasEvent = false;
        turnIsOver.release();
    }
}

void Scheduler::step() {
    if (turnOfThisStrand != nullptr && !isEnding && draw(stepsInATurn) == 0) giveWay();
}

bool Scheduler::giveWay() {
    if (turnOfThisStrand == nullptr) return false;
    turnIsOver.release();
    turnOfThisStrand->acquire();
    return true;
}

// Events in the middle of something come to their end, and their threads go.
void Scheduler::endStrands() {
    isEnding = true;
    while (!paused.empty()) {
        auto* const strand = paused.front();
        paused.erase(paused.begin());
        strand->mayGo.release();
        turnIsOver.acquire();
        (strand->hasEvent ? paused : idle).push_back(strand);
    }
    for (auto* strand : idle) strand->mayGo.release();
    for (const auto& strand : strands) strand->thread.join();
    idle.clear();
    strands.clear();
}

// Moves time to the next event that is due by `limit`, if there is one to move for.
bool Scheduler::moveTo(double limit, bool evenForTimers) {
    const MutexGuard guard(mutex);
    if (waiting.empty() || waiting.begin()->first.first > limit) return false;
    if (!evenForTimers && waitingDeliveries == 0) return false;
    virtualNow = std::max(virtualNow, waiting.begin()->first.first);
    return true;
}

void Scheduler::runUntilIdle() {
    if (options.order == Order::threads) return waitForThreads(false);
    constexpr double noLimit = std::numeric_limits<double>::infinity();
    do {
        while (runOne()) {
        }
    } while (moveTo(noLimit, false));
}

void Scheduler::advance(double seconds) {
    const double target = now() + seconds;
    if (options.order == Order::threads) {
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds / options.timeScale));
        return waitForThreads(false);
    }
    do {
        while (runOne()) {
        }
    } while (moveTo(target, true));
    {
        const MutexGuard guard(mutex);
        virtualNow = std::max(virtualNow, target);
    }
    runUntilIdle();
}

void Scheduler::runToEnd() {
    if (options.order == Order::threads) return waitForThreads(true);
    constexpr double noLimit = std::numeric_limits<double>::infinity();
    do {
        while (runOne()) {
        }
    } while (moveTo(noLimit, true));
}

void Scheduler::waitForThreads(bool evenForTimers) {
    mutex.lock();
    while (!onlyTimersAreLeft() || (evenForTimers && !waiting.empty())) changed.wait(mutex);
    mutex.unlock();
}

void Scheduler::workOnThread() {
    mutex.lock();
    while (!hasEnded) {
        promoteDueEvents();
        if (ready.empty()) {
            if (waiting.empty()) {
                changed.wait(mutex);
            } else {
                const double wait = (waiting.begin()->first.first - currentTime());
                const std::chrono::duration<double> real(std::max(wait, 0.0) / options.timeScale);
                changed.waitUntil(mutex, Condition::Clock::now() +
                                             std::chrono::ceil<Condition::Clock::duration>(real));
            }
            continue;
        }
        Event event = takeReady();
        mutex.unlock();
        event.work();
        checkNoLockIsHeld(event.label);
        mutex.lock();
        finish(event);
        changed.notifyAll();
    }
    mutex.unlock();
}

void Scheduler::setLatency(double seconds) {
    const MutexGuard guard(mutex);
    latency = seconds;
}

void Scheduler::setAfterEachEvent(std::function<void()> check) {
    afterEachEvent = std::move(check);
}

std::uint64_t Scheduler::draw(std::uint64_t bound) {
    const MutexGuard guard(mutex);
    return bound == 0 ? 0 : random() % bound;
}

bool Scheduler::takesLiberty(std::uint64_t chances) {
    return options.order != Order::asQueued && draw(chances) == 0;
}

std::uint64_t Scheduler::fingerprint() const {
    const MutexGuard guard(mutex);
    return traceHash;
}

std::vector<std::string> Scheduler::recentEvents() const {
    const MutexGuard guard(mutex);
    std::vector<std::string> lines;
    for (const auto& [due, label] : trace) {
        char time[32];
        std::snprintf(time, sizeof time, "%12.6f  ", due);
        lines.push_back(std::string(time) + label);
    }
    return lines;
}

void Scheduler::end() {
    std::map<WaitingKey, Event> droppedWaiting;
    std::deque<Event> droppedReady;
    std::unordered_map<Lane, LaneState> droppedLanes;
    endStrands();
    {
        const MutexGuard guard(mutex);
        hasEnded = true;
    }
    changed.notifyAll();
    for (auto& thread : threads) thread.join();
    threads.clear();
    {
        const MutexGuard guard(mutex);
        droppedWaiting.swap(waiting);
        droppedReady.swap(ready);
        droppedLanes.swap(lanes);
        waitingDeliveries = 0;
    }
}

}  // namespace platform::simulated
