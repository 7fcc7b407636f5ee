// What on this machine could get in the daemon's way: settings of the kernel, rules of others, the
// uplink. Each looks and changes nothing.
#pragma once

#include <cstdint>
#include <string>

#include "Host/vantryctl/Finding.h"
#include "Platform/Linux/Network/NetworkState.h"

namespace vantryctl {

Finding checkConnectionTracking();
Finding checkControlGroups();
Finding checkReversePathFilters(const platform::NetworkState& state);
// Whether the VPN that is up carries both families.
Finding checkFamilies();
Finding checkUplink(const platform::NetworkState& state);
// The rules of others, as nft prints them: what redirects at our hook, what leaves connections
// untracked. And whether a byte of the mark is free.
Findings checkOtherRules();
Findings findingsInRules(const std::string& rulesOfOthers);
Finding checkMarks(std::uint32_t bitsInUse);

}  // namespace vantryctl
