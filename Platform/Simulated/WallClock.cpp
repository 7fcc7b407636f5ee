#include "Platform/Simulated/WallClock.h"

#include <array>
#include <bit>
#include <cstdint>
#include <limits>

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
    constexpr auto any = std::numeric_limits<std::uint64_t>::max();
    auto& scheduler = simulated::machine().scheduler;
    const std::array halves{scheduler.draw(any), scheduler.draw(any)};
    return UUID::randomFrom(std::bit_cast<UUID::Bytes>(halves));
}

}  // namespace platform
