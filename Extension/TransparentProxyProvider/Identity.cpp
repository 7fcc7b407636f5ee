// Is a flow's owner a system process, is it a VPN client that must be left alone, and under which name
// do the rules know it? A missing or malformed token takes each question to its next source; nothing
// here fails a flow.

#include <algorithm>
#include <array>
#include <utility>

#include "Extension/FlowKillCoordinator.h"
#include "Extension/ProcessUtils.h"
#include "Extension/TransparentProxyProvider.h"
#include "Platform/Common/Text.h"

namespace vantry {

using platform::Data;

namespace {

constexpr std::size_t effectiveUserIdWord = 1;
// Accounts below belong to the system; this one and those above to people.
constexpr std::uint32_t firstUserAccount = 500;
constexpr std::size_t fewestComponents = 2;

constexpr std::array<std::string_view, 15> systemProcessPrefixes{
    "com.apple.mDNSResponder",
    "com.apple.networkd",
    "com.apple.configd",
    "com.apple.nsurlsessiond",
    "com.apple.trustd",
    "com.apple.symptomsd",
    "com.apple.nesessionmanager",
    "com.apple.nehelper",
    "com.apple.netbiosd",
    "com.apple.airportd",
    "com.apple.WiFiAgent",
    "com.apple.locationd",
    "com.apple.ocspd",
    "com.apple.captiveagent",
    "com.apple.apsd",
};

const BundleIdSet vpnClientBundleIds{
    "net.tunnelblick.tunnelblick",
    "net.openvpn.connect.app",
    "org.openvpn.client.app",
    "com.viscosityvpn.Viscosity",
    "com.wireguard.macos",
    "com.cisco.secureclient",
    "com.cisco.anyconnect.gui",
    "com.nordvpn.osx",
    "com.expressvpn.ExpressVPN",
    "com.surfshark.vpnclient.macos",
    "com.privateinternetaccess.vpn",
    "ch.protonvpn.mac",
    "com.mullvad.vpn",
    "com.cyberghostvpn.cg7.mac",
    "com.paloaltonetworks.GlobalProtect",
    "com.f5.access.macos",
    "com.juniper.junospulse",
    "net.pulsesecure.Pulse-Secure",
    "com.zscaler.zscaler",
    "io.tailscale.ipn.macos",
    "com.cloudflare.1dot1dot1dot1.macos",
};

}  // namespace

bool TransparentProxyProvider::isSystemProcess(std::string_view bundleId,
                                               const AuditToken& auditToken) {
    if (bundleId.empty()) return true;
    if (auditToken)
        if (const auto euid = euidFromAuditToken(*auditToken)) return *euid < firstUserAccount;
    return std::ranges::any_of(systemProcessPrefixes, [&](std::string_view prefix) {
        return bundleId.starts_with(prefix);
    });
}

std::optional<std::uint32_t> TransparentProxyProvider::euidFromAuditToken(const Data& auditToken) {
    return ProcessUtils::wordOfAuditToken(auditToken, effectiveUserIdWord);
}

bool TransparentProxyProvider::isProtectedVpnClient(std::string_view bundleId) const {
    return covers(vpnClientBundleIds, bundleId) || covers(*dynamicVpnClients.snapshot(), bundleId);
}

void TransparentProxyProvider::discoverVpnClients() {
    platform::NETunnelProviderManager::loadAllFromPreferences(
        [weakSelf = weak_from_this()](
            const std::optional<std::vector<platform::NETunnelProviderManager>>& managers,
            const std::optional<platform::NSError>&) {
            const auto self = weakSelf.lock();
            if (!self || !managers) return;
            for (const auto& manager : *managers) {
                const auto* protocol = dynamic_cast<const platform::NETunnelProviderProtocol*>(
                    manager.protocolConfiguration().get());
                if (protocol && protocol->providerBundleIdentifier())
                    self->rememberVpnClient(*protocol->providerBundleIdentifier());
            }
        });
}

// The provider's identifier less its last component stands for the VPN client application.
void TransparentProxyProvider::rememberVpnClient(std::string_view providerBundleIdentifier) {
    const auto components = platform::nonEmptyComponents(providerBundleIdentifier);
    if (components.size() < fewestComponents) return;
    const auto client = platform::joinComponents(components, components.size() - 1);
    dynamicVpnClients.change([&](BundleIdSet& clients) { clients.insert(client); });
    logger.info("Discovered VPN client: %s", client);
}

std::string TransparentProxyProvider::resolveParentBundleId(const std::string& bundleId,
                                                            const AuditToken& auditToken,
                                                            const RuleState& rules) {
    auto [name, through] = findKnownName(bundleId, auditToken, rules);
    switch (through) {
        case KnownName::Through::prefix:
            logger.debug("Resolved %{public}s -> %{public}s via prefix stripping", bundleId, name);
            break;
        case KnownName::Through::ancestor:
            processCache.store(*auditToken, name);
            [[fallthrough]];
        case KnownName::Through::rememberedAncestor:
            logger.debug("Resolved %{public}s -> %{public}s via process tree", bundleId, name);
            break;
        case KnownName::Through::itself:
        case KnownName::Through::nothing:
            break;
    }
    return std::move(name);
}

TransparentProxyProvider::KnownName TransparentProxyProvider::findKnownName(
    const std::string& bundleId, const AuditToken& auditToken, const RuleState& rules) const {
    using Through = KnownName::Through;
    if (rules.hasKnownRule(bundleId)) return {bundleId, Through::itself};
    const auto components = platform::nonEmptyComponents(bundleId);
    for (auto count = components.size(); count > fewestComponents; --count) {
        auto candidate = platform::joinComponents(components, count - 1);
        if (rules.hasKnownRule(candidate)) return {std::move(candidate), Through::prefix};
    }
    if (auditToken) {
        auto ancestor = resolveViaProcessTree(*auditToken, rules);
        if (ancestor.through != Through::nothing) return ancestor;
    }
    return {bundleId, Through::nothing};
}

TransparentProxyProvider::KnownName TransparentProxyProvider::resolveViaProcessTree(
    const Data& auditToken, const RuleState& rules) const {
    using Through = KnownName::Through;
    if (auto cached = processCache.find(auditToken))
        return {std::move(*cached), Through::rememberedAncestor};
    const auto pid = ProcessUtils::pidFromAuditToken(auditToken);
    if (!pid) return {};
    auto ancestor = ProcessUtils::nearestKnownAncestor(
        *pid, [&rules](const std::string& candidate) { return rules.hasKnownRule(candidate); });
    if (!ancestor) return {};
    return {std::move(*ancestor), Through::ancestor};
}

// Teaches the coordinator under which name the rules know the bundle that the filter will find.
void TransparentProxyProvider::registerChildMappingIfNeeded(std::string_view resolvedBundleId,
                                                            const AuditToken& auditToken) const {
    if (!auditToken) return;
    const auto pid = ProcessUtils::pidFromAuditToken(*auditToken);
    if (!pid) return;
    const auto path = ProcessUtils::getBundleIdForPid(*pid);
    if (!path || *path == resolvedBundleId) return;
    FlowKillCoordinator::shared().registerChildProcess(*path, resolvedBundleId);
}

}  // namespace vantry
