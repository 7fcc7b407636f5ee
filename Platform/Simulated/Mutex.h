// The lock that the simulated platform guards its own state with: annotated for clang, and apart
// from NSLock, which is the core's and is watched for what is called under it.
#pragma once

#include <mutex>

#include "Platform/Common/ThreadAnnotations.h"

namespace platform::simulated {

class CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE() { mutex.lock(); }
    void unlock() RELEASE() { mutex.unlock(); }

private:
    std::mutex mutex;
};

class SCOPED_CAPABILITY MutexGuard {
public:
    explicit MutexGuard(Mutex& toHold) ACQUIRE(toHold) : mutex(toHold) { mutex.lock(); }
    ~MutexGuard() RELEASE() { mutex.unlock(); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    Mutex& mutex;
};

}  // namespace platform::simulated
