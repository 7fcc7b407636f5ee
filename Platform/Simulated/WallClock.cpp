#include "Platform/Simulated/WallClock.h"

#include "Platform/Common/UUID.h"
#include "Platform/Simulated/Machine.h"

namespace platform {
namespace simulated {

Date WallClock::now() const {
    const double elapsed = scheduler.now();
    const MutexGuard guard(mutex);
    return Date::sinceReferenceDate(offset + elapsed);
}

void WallClock::set(Date date) {
    const double elapsed = scheduler.now();
    const MutexGuard guard(mutex);
    offset = date.secondsSinceReferenceDate() - elapsed;
}

void WallClock::jump(double seconds) {
    const MutexGuard guard(mutex);
    offset += seconds;
}

}  // namespace simulated

Date Date::now() { return simulated::machine().wallClock.now(); }

UUID UUID::random() {
    UUID::Bytes bytes;
    for (auto& byte : bytes)
        byte = static_cast<std::uint8_t>(simulated::machine().scheduler.draw(256));
    return UUID::randomFrom(bytes);
}

}  // namespace platform
