// Networks that no one outside of them reaches: RFC 1918, RFC 6598 and RFC 4193. Pure; any thread.
#pragma once

#include <array>
#include <cstdint>

namespace platform {

// Whether the whole prefix of an address (network byte order; IPv4 in the first four bytes) lies in one.
bool isPrivateNetwork(int family, const std::array<std::uint8_t, 16>& address, int prefixLength);

}  // namespace platform
