#include "Platform/Linux/DescriptorReserve.h"

#include <sys/resource.h>

namespace platform {

namespace {

constexpr rlim_t size = 64;

rlim_t firstOfReserve() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur > size ? limit.rlim_cur - size : 0;
}

}  // namespace

bool DescriptorReserve::holds(int descriptor) {
    // The limit is raised once, before anything asks.
    static const rlim_t first = firstOfReserve();
    return static_cast<rlim_t>(descriptor) >= first;
}

}  // namespace platform
