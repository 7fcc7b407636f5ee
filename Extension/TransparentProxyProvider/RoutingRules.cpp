// Which route an identifier takes. Nothing is cached: a change of rules takes effect for the next flow.

#include "Extension/RuleState.h"
#include "Platform/Common/Text.h"

namespace vantry {
namespace {

// Its parent prefix is not looked up: a rule for the framework does not reach the process that does
// the networking of every application that uses it.
constexpr std::string_view identifierWithoutParent = "com.apple.WebKit.Networking";
constexpr std::size_t fewestComponentsWithParent = 3;

// The rule under the identifier's components but the last, or null. One level only.
const RuleTable::value_type* ruleOfParent(const RuleTable& rules, std::string_view bundleId) {
    const auto components = platform::nonEmptyComponents(bundleId);
    if (components.size() < fewestComponentsWithParent) return nullptr;
    const auto rule = rules.find(platform::joinComponents(components, components.size() - 1));
    return rule == rules.end() ? nullptr : &*rule;
}

}  // namespace

std::string_view RuleState::getRoutingDecision(std::string_view bundleId) const {
    if (blockedApps->contains(bundleId)) return "block";
    const auto* rule = ruleFor(bundleId);
    return rule ? rule->second : defaultDecision;
}

const RuleTable::value_type* RuleState::ruleFor(std::string_view bundleId) const {
    if (const auto rule = routingRules->find(bundleId); rule != routingRules->end()) return &*rule;
    if (bundleId == identifierWithoutParent) return nullptr;
    return ruleOfParent(*routingRules, bundleId);
}

bool RuleState::hasKnownRule(std::string_view bundleId) const {
    return routingRules->contains(bundleId) || blockedApps->contains(bundleId);
}

}  // namespace vantry
