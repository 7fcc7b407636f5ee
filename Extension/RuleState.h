// The rules at one moment: what the host application has last said of applications, of the VPN and of
// what replaces a route that is missing. One value, published as a whole: a load appears to readers at
// once or not at all, and whoever decides about a flow takes one snapshot and keeps to it. The big parts
// are shared between values, so that a change copies only what it changes. Nothing checks the words; only
// those named here have an effect.
//
// Which rule a flow meets, first hit wins:
//
//   1. one for exactly its signing identifier            } the flow takes on the name for which one was
//   2. one for its parent, its parent's parent, ...,     } found (`resolveParentBundleId`), else it keeps
//      down to two components                            } its own; a blocked name counts as a rule
//   3. one for the nearest of five ancestors of its process
//   4. none: `defaultDecision`
//
// For the name that comes out of this, `getRoutingDecision` asks: is it blocked, has it a rule, and then,
// apart from one identifier, has its parent one. As step 2 has found the parent's rule before, that last
// look answers only for a name without a rule of its own that was not looked for under these rules: an
// ancestor that is remembered from before its rule went, or a session that is asked about again.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "Extension/BundleIdSet.h"

namespace vantry {

// A table that several hold and no one changes.
using SharedRules = std::shared_ptr<const RuleTable>;

struct RuleState {
    // From a bundle identifier, or the parent prefix of one, to its decision word: "direct", "block", or
    // any other word, which means the VPN. Never null.
    SharedRules routingRules = std::make_shared<const RuleTable>();
    // The decision of an identifier that no rule matches.
    std::string defaultDecision = "vpn";
    // What becomes of flows for the VPN while it is down: "block", or the system's own route.
    std::string vpnFallback = "allow";
    // What becomes of direct flows without a physical interface: "block", or the system's own route.
    std::string directFallback = "block";
    // The host application's last word on the VPN.
    bool isVpnConnected = true;
    // Blocked whatever their rule says. Never null.
    SharedBundleIds blockedApps = share({});

    // The decision word for `bundleId`; a view into this value.
    std::string_view getRoutingDecision(std::string_view bundleId) const;
    // The rule that gives it, its own or its parent's; null where the default would.
    const RuleTable::value_type* ruleFor(std::string_view bundleId) const;
    // Whether exactly this identifier has a rule or is blocked.
    bool hasKnownRule(std::string_view bundleId) const;
};

}  // namespace vantry
