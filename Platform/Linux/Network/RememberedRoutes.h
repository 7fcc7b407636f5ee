// What a VPN that replaces the machine's default route leaves of the one that was there before.
#pragma once

#include <array>
#include <cstdint>

#include "Platform/Linux/Network/NetworkState.h"

namespace platform {

// Enters the default routes of `before` that are gone from `now`, as remembered ones, on interfaces
// that still stand as they did: up, and with an address from whose link the gateway can be reached.
void rememberRoutes(const NetworkState& before, NetworkState& now);

// Whether the gateway is in the address's own network. Both are of one family.
bool isOnLinkOf(const InterfaceAddress& address, const std::array<std::uint8_t, 16>& gateway);

}  // namespace platform
