// The two sources of the rules, both written by the host application: the provider configuration and
// the shared rules file. Keys apply one by one, each by its type; what a source lacks stays as it was.
// A source that cannot be read leaves everything as it was. Readers see a load as a whole.

#include <algorithm>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

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
constexpr std::string_view rulesKey = "rules";

// The value under `key` if it is there and of the type asked for.
template <class T>
const T* valueOf(const JSONObject& source, std::string_view key) {
    const auto entry = source.find(key);
    return entry == source.end() ? nullptr : entry->second.template as<T>();
}

bool holdsText(const JSONObject::Member& member) {
    return member.second.as<std::string>() != nullptr;
}

// Rules as a source says them, one after the other, of which two may have one name. They are looked up when
// all are there: in a row that takes less time than one by one while reading.
class RulesReader {
public:
    // Room for as many as there were before saves moving them as they become more.
    void begin(std::size_t expected) {
        rules.clear();
        rules.reserve(expected);
    }
    void add(std::string_view bundleId, std::string_view word) {
        rules.emplace_back(bundleId, word);
    }

    // The table of them. Rules that say the same as those in force stay the same table: a comparison
    // of the two then costs no time.
    SharedRules finish(const SharedRules& inForce) {
        if (sayTheSame(*inForce)) return inForce;
        RuleTable table;
        table.reserve(rules.size());
        for (auto& [bundleId, word] : rules)
            table.insert_or_assign(std::move(bundleId), std::move(word));
        return std::make_shared<const RuleTable>(std::move(table));
    }

private:
    bool sayTheSame(const RuleTable& table) const {
        if (rules.size() != table.size()) return false;
        std::vector<const RuleTable::value_type*> found;
        found.reserve(rules.size());
        for (const auto& [bundleId, word] : rules) {
            const auto rule = table.find(bundleId);
            if (rule == table.end() || rule->second != word) return false;
            found.push_back(&*rule);
        }
        // Each has to come once. They mostly lie in the order in which they were made.
        if (!std::ranges::is_sorted(found, std::less<>())) std::ranges::sort(found, std::less<>());
        return std::ranges::adjacent_find(found) == found.end();
    }

    std::vector<std::pair<std::string, std::string>> rules;
};

// The rules of a source in place of those in force; null if they are absent or not an object of texts.
SharedRules rulesOf(const JSONObject& source, const SharedRules& inForce) {
    const auto* rules = valueOf<JSONObject>(source, rulesKey);
    if (!rules || !std::ranges::all_of(*rules, holdsText)) return nullptr;
    RulesReader reader;
    for (const auto& [bundleId, word] : *rules) reader.add(bundleId, *word.as<std::string>());
    return reader.finish(inForce);
}

// What a rules file says: its rules, and an object with all its keys. Null rules if there are none.
struct FileContents {
    SharedRules rules;
    std::optional<JSONValue> document;

    const JSONObject& source() const { return *document->as<JSONObject>(); }
};

FileContents readRulesFile(std::string_view bytes, const SharedRules& inForce) {
    RulesReader reader;
    const platform::JSONMemberTexts texts{
        rulesKey, [&] { reader.begin(inForce->size()); },
        [&](std::string_view bundleId, std::string_view word) { reader.add(bundleId, word); }};
    FileContents file{nullptr, platform::NSJSONSerialization::JSONObjectWithData(bytes, &texts)};
    const auto* source = file.document ? file.document->as<JSONObject>() : nullptr;
    const auto* others = source ? valueOf<JSONObject>(*source, rulesKey) : nullptr;
    if (others && std::ranges::all_of(*others, holdsText)) file.rules = reader.finish(inForce);
    return file;
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
    const auto contents = platform::NSFileManager::defaultManager().contentsAtPath(rulesFilePath);
    if (!contents) {
        logger.debug("No rules file found at %{public}s", rulesFilePath);
        return;
    }
    const auto bytes = contents->bytes().value_or(std::string_view{});
    logger.debug("Raw file contents (%ld bytes): %{public}s", bytes.size(), previewOf(bytes));

    RuleState rules = *ruleState.snapshot();
    auto file = readRulesFile(bytes, rules.routingRules);
    if (!file.rules) {
        logger.debug("Failed to parse rules file (invalid JSON format)");
        return;
    }
    const auto oldCount = rules.routingRules->size();
    rules.routingRules = std::move(file.rules);
    applyKeysBesidesRules(file.source(), rules);
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
