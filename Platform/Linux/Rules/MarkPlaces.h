// Finds a byte of the packet mark that nothing else on the machine uses: marks are shared by VPNs,
// container networks and firewalls, each with its own bits. Asked at start, when rules of others change,
// and where a machine is checked.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Linux/Result.h"
#include "Platform/Linux/Rules/FlowMark.h"

namespace platform::interception {

// Whether a table of the family inet is one of the daemon's.
bool isOwnTable(std::string_view name);

// The packet rules of others that are in force, in their text form; or why they cannot be
// listed. (The form for machines is of no use: libnftables 1.0.6 breaks off at a table with an owner.)
Result<std::string> packetRulesOfOthers();

// Those of the named tables of iptables-legacy that are in use: "ip raw, ip6 mangle". They are no part of what nft
// lists, and nothing here reads their rules; one without rules is named too. None if that cannot be told.
std::optional<std::string> legacyTablesInUse(std::initializer_list<std::string_view> wanted);

// The bits of marks that the packet rules of others and the routing rules test or set, as far as
// they can be read; which tables write the whole mark of connections, or leave what is sent untracked; and
// why the packet rules cannot be read, where that is so.
struct MarkBits {
    std::uint32_t used = 0;
    std::string overwritingTables;
    std::string untrackingTables;
    std::optional<Error> unread;
};
MarkBits markBitsInUse();

// The first place whose byte has no bit in `used`, highest bits first. None if there is none.
std::optional<MarkPlace> freeMarkPlace(std::uint32_t used);

}  // namespace platform::interception
