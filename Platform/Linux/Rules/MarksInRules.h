// Reads which bits of marks the packet rules of others use, from the text that nft prints, rules made by
// iptables included. Every number that stands with a mark counts as it is, a range with all values in
// it; only what `X mark set X mark & M` keeps is left alone by that rule, so there the other bits count.
// Pure function; any thread.
#pragma once

#include <cstdint>
#include <string_view>

namespace platform::interception {

std::uint32_t markBitsInRules(std::string_view rules);

}  // namespace platform::interception
