// What on this machine could get in the daemon's way: settings of the kernel, rules of others, the
// uplink. Each looks and changes nothing.
#pragma once

#include <string_view>

#include "Host/vantryctl/Finding.h"
#include "Platform/Common/JSON.h"
#include "Platform/Linux/Network/NetworkState.h"

namespace vantryctl {

Finding checkConnectionTracking();
Finding checkControlGroups();
Finding checkReversePathFilters();
Finding checkUplink(const platform::NetworkState& state);
// The rules of others, as nft lists them in JSON: what redirects at our hook, what leaves connections
// untracked. And whether a byte of the mark is free.
Findings checkOtherRules();
Findings findingsInRuleSet(const platform::JSONValue& ruleSet);
Finding checkMarks(std::uint32_t bitsInUse);

}  // namespace vantryctl
