#include "Platform/Linux/RandomBytes.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

namespace platform {
namespace {

struct Supply {
    std::array<std::uint8_t, 256> bytes;  // the kernel gives up to 256 at once, never fewer
    std::size_t used = sizeof bytes;
};
thread_local Supply supply;

void refill() {
    while (::getrandom(supply.bytes.data(), supply.bytes.size(), 0) < 0) {
        // Predictable identifiers and file names are worse than no process.
        if (errno != EINTR) std::abort();
    }
    supply.used = 0;
}

}  // namespace

void fillWithRandomBytes(std::span<std::uint8_t> bytes) {
    if (supply.bytes.size() - supply.used < bytes.size()) refill();
    const auto from = supply.bytes.begin() + static_cast<std::ptrdiff_t>(supply.used);
    std::copy_n(from, bytes.size(), bytes.begin());
    supply.used += bytes.size();
}

}  // namespace platform
