// The two sources of the rules, both written by the host application: the provider configuration and
// the shared rules file. Keys apply one by one, each by its type; what a source lacks stays as it was.
// A source that cannot be read leaves everything as it was. Readers see a load as a whole.

#include <algorithm>

#include "Extension/FlowKillCoordinator.h"
#include "Extension/TransparentProxyProvider.h"
#include "Platform/Common/Text.h"
#include "Platform/Foundation.h"

namespace vantry {

using platform::JSONObject;
using platform::JSONValue;

namespace {

constexpr std::string_view rulesFilePath = "/tmp/org.quillmere.Vantry.rules.json";
constexpr std::size_t previewLength = 500;

// The value under `key` if it is there and of the type asked for.
template <class T>
const T* valueOf(const JSONObject& source, std::string_view key) {
    const auto entry = source.find(key);
    return entry == source.end() ? nullptr : entry->second.template as<T>();
}

bool saysTheSame(const JSONObject& source, const RuleTable& rules) {
    return source.size() == rules.size() && std::ranges::all_of(source, [&](const auto& member) {
               const auto* word = member.second.template as<std::string>();
               const auto rule = rules.find(member.first);
               return word && rule != rules.end() && rule->second == *word;
           });
}

// The rules of a source in place of those in force; null if they are absent or not an object of texts.
// Rules that say the same stay the same table, so that whoever compares has nothing to compare.
SharedRules rulesOf(const JSONObject& source, const SharedRules& inForce) {
    const auto entry = source.find("rules");
    const auto* rules = entry == source.end() ? nullptr : entry->second.template as<JSONObject>();
    if (!rules) return nullptr;
    if (saysTheSame(*rules, *inForce)) return inForce;
    auto table = platform::stringTable(entry->second);
    return table ? std::make_shared<const RuleTable>(std::move(*table)) : nullptr;
}

// The blocked applications of a source, or those in force if they are absent or not an array of texts.
SharedBundleIds blockedAppsOf(const JSONObject& source, const SharedBundleIds& inForce) {
    const auto entry = source.find("blockedApps");
    const auto bundleIds =
        entry == source.end() ? std::nullopt : platform::stringArray(entry->second);
    if (!bundleIds) return inForce;
    BundleIdSet blocked(bundleIds->begin(), bundleIds->end());
    return blocked == *inForce ? inForce : share(std::move(blocked));
}

// `rules` with everything that a source says besides its rules.
void applyKeysBesidesRules(const JSONObject& source, RuleState& rules) {
    if (const auto* word = valueOf<std::string>(source, "defaultAction"))
        rules.defaultDecision = *word;
    if (const auto* word = valueOf<std::string>(source, "vpnFallback")) rules.vpnFallback = *word;
    if (const auto* word = valueOf<std::string>(source, "directFallback"))
        rules.directFallback = *word;
    if (const auto* isConnected = valueOf<bool>(source, "vpnConnected"))
        rules.isVpnConnected = *isConnected;
    rules.blockedApps = blockedAppsOf(source, rules.blockedApps);
}

std::string_view previewOf(std::string_view bytes) {
    const auto preview = bytes.substr(0, previewLength);
    return platform::isValidUTF8(preview) ? preview : "<non-utf8>";
}

}  // namespace

void TransparentProxyProvider::loadRoutingRules() {
    const auto configured = protocolConfiguration();
    const auto* protocol =
        dynamic_cast<const platform::NETunnelProviderProtocol*>(configured.get());
    if (!protocol || !protocol->providerConfiguration()) {
        logger.error("No providerConfiguration available");
        return;
    }
    const auto& source = *protocol->providerConfiguration();
    RuleState rules = *ruleState.snapshot();
    if (auto table = rulesOf(source, rules.routingRules)) rules.routingRules = std::move(table);
    applyKeysBesidesRules(source, rules);
    const auto loaded = ruleState.replace(std::move(rules));

    FlowKillCoordinator::shared().updateVpnState(loaded->isVpnConnected, loaded->vpnFallback);
    logger.info("Loaded %ld routing rules from config, default: %s, blocked: %ld",
                loaded->routingRules->size(), loaded->defaultDecision, loaded->blockedApps->size());
    logger.info("Fallback settings from config: vpn=%s, direct=%s", loaded->vpnFallback,
                loaded->directFallback);
}

void TransparentProxyProvider::loadRulesFromSharedFile() {
    logger.debug("Reading rules from: %{public}s", rulesFilePath);
    const auto file = platform::NSFileManager::defaultManager().contentsAtPath(rulesFilePath);
    if (!file) {
        logger.debug("No rules file found at %{public}s", rulesFilePath);
        return;
    }
    const auto bytes = file->bytes().value_or(std::string_view{});
    logger.debug("Raw file contents (%ld bytes): %{public}s", bytes.size(), previewOf(bytes));

    const auto document = platform::NSJSONSerialization::JSONObjectWithData(bytes);
    const auto* source = document ? document->as<JSONObject>() : nullptr;
    RuleState rules = *ruleState.snapshot();
    auto table = source ? rulesOf(*source, rules.routingRules) : nullptr;
    if (!table) {
        logger.debug("Failed to parse rules file (invalid JSON format)");
        return;
    }
    const auto oldCount = rules.routingRules->size();
    rules.routingRules = std::move(table);
    applyKeysBesidesRules(*source, rules);
    const auto loaded = ruleState.replace(std::move(rules));

    auto& coordinator = FlowKillCoordinator::shared();
    coordinator.updateVpnState(loaded->isVpnConnected, loaded->vpnFallback);
    coordinator.updateBlockedApps(loaded->blockedApps);

    logger.debug(
        "Loaded rules from shared file: %{public}ld -> %{public}ld, default: %{public}s, blocked: "
        "%ld",
        oldCount, loaded->routingRules->size(), loaded->defaultDecision,
        loaded->blockedApps->size());
    logger.debug("Fallback settings: vpn=%{public}s, direct=%{public}s, vpnConnected=%{bool}d",
                 loaded->vpnFallback, loaded->directFallback, loaded->isVpnConnected);
    if (!platform::Logger::isEnabled(platform::LogLevel::debug)) return;
    for (const auto& [bundleId, decision] : *loaded->routingRules)
        logger.debug("Rule: %{public}s -> %{public}s", bundleId, decision);
}

// The applications that a rule sends anywhere but directly, less those of `excluded`. The last answer is
// kept: most loads change neither the rules nor the exceptions.
SharedBundleIds TransparentProxyProvider::vpnRoutedBundleIds(const SharedRules& rules,
                                                             const SharedBundleIds& excluded) {
    if (vpnRouted.rules == rules && vpnRouted.excluded == excluded) return vpnRouted.bundleIds;
    BundleIdSet routed;
    routed.reserve(rules->size());
    for (const auto& [bundleId, decision] : *rules)
        if (decision != "direct" && !excluded->contains(bundleId)) routed.insert(bundleId);
    vpnRouted = {rules, excluded, share(std::move(routed))};
    return vpnRouted.bundleIds;
}

}  // namespace vantry
