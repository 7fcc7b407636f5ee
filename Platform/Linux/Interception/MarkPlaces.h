// Finds a byte of the packet mark that nothing else on the machine uses: marks are shared by VPNs,
// container networks and firewalls, each with its own bits. Called once at start, and by whoever
// checks a machine.
#pragma once

#include <cstdint>
#include <string_view>

#include "Platform/Linux/Interception/FlowMark.h"

namespace platform::interception {

// The bits of marks that the packet rules and routing rules in force test or set, as far as they
// can be read. Rules of ours don't count.
std::uint32_t markBitsInUse();

// The bits that a rule set in its text form names.
std::uint32_t markBitsInRules(std::string_view ruleset);

// The first place whose byte has no bit in `used`, highest bits first; else the one that shares
// fewest.
MarkPlace freeMarkPlace(std::uint32_t used);

}  // namespace platform::interception
