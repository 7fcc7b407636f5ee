// Which route an identifier takes. Nothing is cached: a change of rules takes effect for the next flow.

#include "Extension/RuleState.h"
#include "Platform/Common/Text.h"

namespace vantry {
namespace {

// Its parent prefix is not looked up: a rule for the framework does not reach the process that does
// the networking of every application that uses it.
constexpr std::string_view identifierWithoutParent = "com.apple.WebKit.Networking";
constexpr std::size_t fewestComponentsWithParent = 3;

// The word of the rule under the identifier's components but the last, or null. One level only.
const std::string* decisionOfParent(const RuleTable& rules, std::string_view bundleId) {
    const auto components = platform::nonEmptyComponents(bundleId);
    if (components.size() < fewestComponentsWithParent) return nullptr;
    const auto rule = rules.find(platform::joinComponents(components, components.size() - 1));
    return rule == rules.end() ? nullptr : &rule->second;
}

}  // namespace

std::string_view RuleState::getRoutingDecision(std::string_view bundleId) const {
    if (blockedApps->contains(bundleId)) return "block";
    if (const auto rule = routingRules->find(bundleId); rule != routingRules->end())
        return rule->second;
    if (bundleId == identifierWithoutParent) return defaultDecision;
    if (const auto* decision = decisionOfParent(*routingRules, bundleId)) return *decision;
    return defaultDecision;
}

bool RuleState::hasKnownRule(std::string_view bundleId) const {
    return routingRules->contains(bundleId) || blockedApps->contains(bundleId);
}

}  // namespace vantry
