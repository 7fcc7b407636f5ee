// Reads which bits of marks the packet rules of others use, from the text that nft prints, rules made by
// iptables included. Every number that stands with a mark counts as it is, a range with all values in
// it; only what `X mark set X mark & M` keeps is left alone by that rule, so there the other bits count.
// Pure functions; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace platform::interception {

std::uint32_t markBitsInRules(std::string_view rules);

// The tables, one after the other with commas ("ip mangle, inet other"), with a rule that writes the mark of
// connections and keeps nothing of it, such as `ct mark set meta mark`: no bit of the mark is safe from it. Rules
// for what is forwarded, and for one mark alone, are left out.
std::string tablesThatOverwriteMarks(std::string_view rules);

// The same of those with a rule that leaves what is sent untracked: without an entry of its own a packet bears no
// verdict, and is offered to no one.
std::string tablesThatDoNotTrack(std::string_view rules);

}  // namespace platform::interception
