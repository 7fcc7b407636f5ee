// The two sources of the rules, both written by the host application: the provider configuration and
// the shared rules file. Keys apply one by one, each by its type; what a source lacks stays as it was.
// A source that cannot be read leaves everything as it was.

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

// The rules of a source; nothing if they are absent or not an object of texts.
std::optional<RuleTable> rulesOf(const JSONObject& source) {
    const auto entry = source.find("rules");
    return entry == source.end() ? std::nullopt : platform::stringTable(entry->second);
}
// The same, taking the texts out of a source that is not needed afterwards.
std::optional<RuleTable> takeRules(JSONObject& source) {
    const auto entry = source.find("rules");
    return entry == source.end() ? std::nullopt : platform::stringTable(std::move(entry->second));
}

// The blocked applications of a source; nothing if they are absent or not an array of texts.
std::optional<BundleIdSet> blockedAppsOf(const JSONObject& source) {
    const auto entry = source.find("blockedApps");
    const auto bundleIds =
        entry == source.end() ? std::nullopt : platform::stringArray(entry->second);
    if (!bundleIds) return std::nullopt;
    return BundleIdSet(bundleIds->begin(), bundleIds->end());
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
    if (auto rules = rulesOf(source)) routingRules.replace(std::move(*rules));
    applyKeysBesidesRules(source);

    FlowKillCoordinator::shared().updateVpnState(isVpnConnected, *vpnFallback.snapshot());
    logger.info("Loaded %ld routing rules from config, default: %s, blocked: %ld",
                routingRules.snapshot()->size(), *defaultDecision.snapshot(),
                blockedApps.snapshot()->size());
    logger.info("Fallback settings from config: vpn=%s, direct=%s", *vpnFallback.snapshot(),
                *directFallback.snapshot());
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

    auto document = platform::NSJSONSerialization::JSONObjectWithData(bytes);
    auto* source = document ? std::get_if<JSONObject>(&document->value) : nullptr;
    auto rules = source ? takeRules(*source) : std::nullopt;
    if (!rules) {
        logger.debug("Failed to parse rules file (invalid JSON format)");
        return;
    }
    const auto oldCount = routingRules.snapshot()->size();
    routingRules.replace(std::move(*rules));
    applyKeysBesidesRules(*source);

    auto& coordinator = FlowKillCoordinator::shared();
    coordinator.updateVpnState(isVpnConnected, *vpnFallback.snapshot());
    coordinator.updateBlockedApps(*blockedApps.snapshot());

    const auto loaded = routingRules.snapshot();
    logger.debug(
        "Loaded rules from shared file: %{public}ld -> %{public}ld, default: %{public}s, blocked: "
        "%ld",
        oldCount, loaded->size(), *defaultDecision.snapshot(), blockedApps.snapshot()->size());
    logger.debug("Fallback settings: vpn=%{public}s, direct=%{public}s, vpnConnected=%{bool}d",
                 *vpnFallback.snapshot(), *directFallback.snapshot(), isVpnConnected.load());
    for (const auto& [bundleId, decision] : *loaded)
        logger.debug("Rule: %{public}s -> %{public}s", bundleId, decision);
}

void TransparentProxyProvider::applyKeysBesidesRules(const JSONObject& source) {
    if (const auto* word = valueOf<std::string>(source, "defaultAction"))
        defaultDecision.replace(*word);
    if (const auto* word = valueOf<std::string>(source, "vpnFallback")) vpnFallback.replace(*word);
    if (const auto* word = valueOf<std::string>(source, "directFallback"))
        directFallback.replace(*word);
    if (const auto* isConnected = valueOf<bool>(source, "vpnConnected"))
        isVpnConnected = *isConnected;
    if (auto blocked = blockedAppsOf(source)) blockedApps.replace(std::move(*blocked));
}

// The applications that a rule sends anywhere but directly, less those of `excluded`.
BundleIdSet TransparentProxyProvider::vpnRoutedBundleIds(const BundleIdSet& excluded) const {
    // Named: a loop over the snapshot's own table would not keep the snapshot.
    const auto rules = routingRules.snapshot();
    BundleIdSet routed;
    routed.reserve(rules->size());
    for (const auto& [bundleId, decision] : *rules)
        if (decision != "direct" && !excluded.contains(bundleId)) routed.insert(bundleId);
    return routed;
}

}  // namespace vantry
