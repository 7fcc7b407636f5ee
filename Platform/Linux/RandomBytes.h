// Random bytes from the kernel, fetched in advance for each thread, as a system call for every
// identifier would show on the flow path. Any thread. Not for a process that forks and goes on.
#pragma once

#include <cstdint>
#include <span>

namespace platform {

// At most 256 bytes at once.
void fillWithRandomBytes(std::span<std::uint8_t> bytes);

}  // namespace platform
