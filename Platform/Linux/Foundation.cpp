// The small pieces of the foundation that the system gives directly: locks, the wall clock and
// random identifiers.
#include "Platform/Foundation.h"

#include <ctime>

#include "Platform/Linux/RandomBytes.h"

namespace platform {

void NSLock::lock() { mutex.lock(); }
void NSLock::unlock() { mutex.unlock(); }

Date Date::now() {
    timespec time{};
    ::clock_gettime(CLOCK_REALTIME, &time);
    // In whole microseconds: the last nanoseconds of a second would be rounded up to the next one.
    const auto second = since1970(static_cast<double>(time.tv_sec)).secondsSinceReferenceDate();
    return sinceReferenceDate(second + static_cast<double>(time.tv_nsec / 1000) * 1e-6);
}

UUID UUID::random() {
    Bytes bytes;
    fillWithRandomBytes(bytes);
    return randomFrom(bytes);
}

}  // namespace platform
