#include "Platform/Simulated/Contracts.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "Platform/Common/Mutex.h"
#include "Platform/Foundation.h"
#include "Platform/Simulated/Machine.h"

namespace platform {
namespace simulated {
namespace {

struct Breaches {
    Mutex mutex;
    bool areCollected GUARDED_BY(mutex) = false;
    std::vector<std::string> list GUARDED_BY(mutex);
};

Breaches& breaches() {
    static Breaches all;
    return all;
}

// The locks that this thread holds, and how many of them guard fields only.
struct LocksHeld {
    std::vector<const NSLock*> list;
    int fieldLocks = 0;
};

LocksHeld& locksHeld() {
    thread_local LocksHeld held;
    return held;
}

[[noreturn]] void endWith(const std::string& what) {
    const auto& scheduler = machine().scheduler;
    std::fprintf(stderr, "\nBREACH OF CONTRACT: %s\n  last events:\n", what.c_str());
    for (const auto& line : scheduler.recentEvents())
        std::fprintf(stderr, "    %s\n", line.c_str());
    if (scheduler.order() == Order::drawn)
        std::fprintf(stderr, "  repeat it with SEED=%llu\n",
                     static_cast<unsigned long long>(scheduler.seed()));
    std::fflush(stderr);
    std::abort();
}

}  // namespace

void breach(std::string what) {
    {
        const MutexGuard guard(breaches().mutex);
        if (breaches().areCollected) {
            breaches().list.push_back(std::move(what));
            return;
        }
    }
    endWith(what);
}

void collectBreaches(bool collect) {
    const MutexGuard guard(breaches().mutex);
    breaches().areCollected = collect;
    breaches().list.clear();
}

std::vector<std::string> takeBreaches() {
    const MutexGuard guard(breaches().mutex);
    return std::exchange(breaches().list, {});
}

void checkPlatformCall(std::string_view operation) {
    if (locksHeld().fieldLocks > 0)
        breach(std::string(operation) + " is called while an NSLock is held");
    machine().scheduler.step();
}

void checkNoLockIsHeld(std::string_view afterWhat) {
    if (!locksHeld().list.empty())
        breach("an NSLock is still held after: " + std::string(afterWhat));
}

MustRun::~MustRun() {
    if (armed && !machine().isEnding())
        breach("the completion of " + name + " was let go without having run");
}

void MustRun::runs() {
    armed.reset();
    checkPlatformCall("the completion of " + name);
}

}  // namespace simulated

void NSLock::lock() {
    auto& held = simulated::locksHeld();
    if (std::find(held.list.begin(), held.list.end(), this) != held.list.end())
        return simulated::breach("an NSLock is taken twice by one thread");
    auto& scheduler = simulated::machine().scheduler;
    if (scheduler.order() == simulated::Order::byTurns) {
        scheduler.step();
        while (!mutex.try_lock())
            if (!scheduler.giveWay()) return simulated::breach("an NSLock is never given back");
    } else {
        mutex.lock();
    }
    held.list.push_back(this);
    if (use == Use::fieldsOnly) ++held.fieldLocks;
}

void NSLock::unlock() {
    auto& held = simulated::locksHeld();
    const auto found = std::find(held.list.begin(), held.list.end(), this);
    if (found == held.list.end())
        return simulated::breach("an NSLock is released by a thread that does not hold it");
    held.list.erase(found);
    if (use == Use::fieldsOnly) --held.fieldLocks;
    mutex.unlock();
}

}  // namespace platform
