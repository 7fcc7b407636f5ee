// Which flows the proxy's network rules ask for. Pure functions; any thread.
#pragma once

#include <vector>

#include "Platform/Linux/Attribution/FlowOwner.h"
#include "Platform/NENetworkSettings.h"

namespace platform::interception {

// True if one of `rules` is for outbound flows and covers the flow's protocol, addresses and ports.
bool asksFor(const std::vector<NENetworkRule>& rules, const FlowTuple& flow);

// True if each rule of `before` is in `after` too.
bool keepsAllRules(const std::vector<NENetworkRule>& before,
                   const std::vector<NENetworkRule>& after);

}  // namespace platform::interception
