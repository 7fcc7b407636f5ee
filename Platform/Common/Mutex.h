// The lock of both platforms: a mutex, a guard and a condition that clang's thread-safety analysis
// understands. A field that a mutex guards is marked GUARDED_BY, a function that needs it REQUIRES;
// the clang build then proves that no one forgets. It stands apart from NSLock, which is the core's
// and which the simulated platform watches for what is called under it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "Platform/Common/ThreadAnnotations.h"

namespace platform {

// A lock that its owner may not take twice. It is held for work on the fields that it guards, and
// not while something is called that may wait, unless its declaration says so.
class CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE() { mutex.lock(); }
    void unlock() RELEASE() { mutex.unlock(); }

private:
    friend class Condition;
    std::mutex mutex;
};

// Holds a mutex for a scope. `unlock` lets go of it for a part of that scope, `lock` takes it back.
class SCOPED_CAPABILITY MutexGuard {
public:
    explicit MutexGuard(Mutex& toHold) ACQUIRE(toHold) : mutex(toHold) { mutex.lock(); }
    ~MutexGuard() RELEASE() {
        if (isHeld) mutex.unlock();
    }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

    void lock() ACQUIRE() {
        mutex.lock();
        isHeld = true;
    }
    void unlock() RELEASE() {
        isHeld = false;
        mutex.unlock();
    }

private:
    Mutex& mutex;
    bool isHeld = true;
};

// What threads wait for that hold a mutex. A wait may end without a notification, so it stands in a
// loop that looks at the fields again: the analysis can't see into a predicate.
class Condition {
public:
    using Clock = std::chrono::steady_clock;

    void notifyOne() { condition.notify_one(); }
    void notifyAll() { condition.notify_all(); }

    // Lets go of `mutex` while it waits and holds it again when it returns.
    void wait(Mutex& mutex) REQUIRES(mutex) {
        Adopted held(mutex);
        condition.wait(held.lock);
    }
    // The same, at the latest until `deadline`. False if that has passed.
    bool waitUntil(Mutex& mutex, Clock::time_point deadline) REQUIRES(mutex) {
        Adopted held(mutex);
        return condition.wait_until(held.lock, deadline) == std::cv_status::no_timeout;
    }

private:
    // The form of a held mutex that the standard's condition takes.
    struct Adopted {
        explicit Adopted(Mutex& mutex) : lock(mutex.mutex, std::adopt_lock) {}
        ~Adopted() { lock.release(); }
        Adopted(const Adopted&) = delete;
        Adopted& operator=(const Adopted&) = delete;
        std::unique_lock<std::mutex> lock;
    };

    std::condition_variable condition;
};

}  // namespace platform
