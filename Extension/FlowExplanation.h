// What both providers would make of a new flow at this moment, and why: the answer to a person who asks.
// It puts a flow's questions to the same functions and the same state, in a flow's order, and leaves no
// trace: nothing is logged, recorded, remembered or claimed. Any thread.
//
//   "route"       "direct", "system" (the VPN while that is up) or "blocked"
//   "decidedBy"   "systemProcess", "vpnClient", "block", "rule", "parentRule", "default", "vpnFallback",
//                 "directFallback" or "start" (the state of the VPN is not known yet)
//   "identifier"  what the flow is signed as; "knownAs": the name that the rules know it by, found through
//                 "itself", "prefix", "ancestor", "rememberedAncestor" or "nothing" ("through")
//   "rule"        the word of the rule that matched, and "ruleOf" whose it is; absent without one
//   "blockOf"     the name that the filter knows a blocked program by
//   "isWatched"   each of its bytes meets the rules again
//   "interface"   the physical one; absent without one
//   "defaultAction", "isVpnConnected", "vpnFallback", "directFallback": as they are in force
#pragma once

#include <optional>
#include <string>

#include "Extension/FlowKillFilterProvider.h"
#include "Extension/TransparentProxyProvider.h"
#include "Platform/NEProvider.h"

namespace vantry {

class FlowExplanation {
public:
    static platform::JSONObject explain(const platform::NETransparentProxyProvider& proxy,
                                        const platform::NEFilterDataProvider& filter,
                                        const platform::FlowQuestion& question);

private:
    struct Findings;
    static void askProxy(const TransparentProxyProvider& proxy,
                         const platform::FlowQuestion& question, Findings& findings);
    static void askFilter(const FlowKillFilterProvider& filter,
                          const platform::FlowQuestion& question, Findings& findings);
    static std::optional<std::string> nameForFilter(const FlowKillFilterProvider& filter,
                                                    const platform::FlowQuestion& question,
                                                    const Findings& findings);
    static const char* wordFor(TransparentProxyProvider::KnownName::Through through);
};

}  // namespace vantry
