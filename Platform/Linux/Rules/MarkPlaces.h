// Finds a byte of the packet mark that nothing else on the machine uses: marks are shared by VPNs,
// container networks and firewalls, each with its own bits. Asked at start, when rules of others change,
// and where a machine is checked.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Platform/Linux/Rules/FlowMark.h"

namespace platform::interception {

// The packet rules of others that are in force, in their text form; none if they cannot be
// listed. (The form for machines is of no use: libnftables 1.0.6 breaks off at a table with an owner.)
std::optional<std::string> packetRulesOfOthers();

// The bits of marks that the packet rules of others and the routing rules test or set, as far as
// they can be read.
std::uint32_t markBitsInUse();

// The first place whose byte has no bit in `used`, highest bits first. None if there is none.
std::optional<MarkPlace> freeMarkPlace(std::uint32_t used);

}  // namespace platform::interception
