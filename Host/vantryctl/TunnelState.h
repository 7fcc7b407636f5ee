// Whether the VPN is up, as the machine's network interfaces show it.
#pragma once

#include <string>
#include <vector>

#include "Platform/Linux/Network/NetworkState.h"

namespace vantryctl {

// The names of the interfaces that carry the VPN now: tunnels that are up and have an address of more
// than the link. With `names`, only interfaces of these names count, and they count whatever they are.
std::vector<std::string> tunnelsThatAreUp(const platform::NetworkState& state,
                                          const std::vector<std::string>& names);

}  // namespace vantryctl
