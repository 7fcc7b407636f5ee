// The proxy's front door. A flow is claimed in one case only: a TCP flow whose decision is "direct" and
// which the direct path takes. A blocked flow is declined like the others; the filter drops it.

#include <array>
#include <cstdio>

#include "Extension/TransparentProxyProvider.h"
#include "Platform/Common/Text.h"

namespace vantry {

using platform::NEAppProxyTCPFlow;
using platform::NEAppProxyUDPFlow;

bool TransparentProxyProvider::handleNewFlow(
    const std::shared_ptr<platform::NEAppProxyFlow>& flow) {
    const auto& signingIdentifier = flow->metaData().sourceAppSigningIdentifier;
    const auto& auditToken = flow->metaData().sourceAppAuditToken;
    logFirstFlow(signingIdentifier);

    const auto rules = ruleState.snapshot();
    if (isSystemProcess(signingIdentifier, auditToken)) return false;
    if (isProtectedVpnClient(signingIdentifier)) {
        logger.debug("Protected VPN client, passing through: %s", signingIdentifier);
        return false;
    }
    const auto bundleId = resolveParentBundleId(signingIdentifier, auditToken, *rules);
    registerChildMappingIfNeeded(bundleId, auditToken);

    if (const auto tcpFlow = std::dynamic_pointer_cast<NEAppProxyTCPFlow>(flow))
        return handleTCPFlow(tcpFlow, *rules);
    if (const auto* udpFlow = dynamic_cast<const NEAppProxyUDPFlow*>(flow.get()))
        return handleUDPFlow(*udpFlow, bundleId);
    return false;
}

void TransparentProxyProvider::logFirstFlow(std::string_view signingIdentifier) {
    if (hasLoggedFirstFlow.exchange(true)) return;
    std::array<char, 64> seconds{};
    std::snprintf(seconds.data(), seconds.size(), "%.3f", platform::Date::now().secondsSince1970());
    logger.debug("First flow handled at %s app=%s", seconds.data(), signingIdentifier);
}

// Datagrams stay with the operating system, whatever the decision.
bool TransparentProxyProvider::handleUDPFlow(const NEAppProxyUDPFlow&, std::string_view) {
    return false;
}

bool TransparentProxyProvider::handleTCPFlow(const std::shared_ptr<NEAppProxyTCPFlow>& flow,
                                             const RuleState& rules) {
    const auto& metaData = flow->metaData();
    const auto bundleId = resolveParentBundleId(metaData.sourceAppSigningIdentifier,
                                                metaData.sourceAppAuditToken, rules);
    const auto decision = rules.getRoutingDecision(bundleId);
    const auto* endpoint = platform::hostEndpoint(flow->remoteEndpoint());
    const std::string host = endpoint ? endpoint->hostname : "unknown";
    const std::string port = endpoint ? endpoint->port : "0";
    if (decision == "block") {
        logger.info("BLOCK (filter-enforced): %{public}s TCP -> %{public}s:%s", bundleId, host,
                    port);
        return false;
    }
    logger.info("TCP flow: %{public}s, decision: %{public}s", bundleId, decision);
    logger.debug("  -> %{public}s:%{public}s", host, port);

    const auto record = [&](const char* route, std::optional<std::string> sourceIp) {
        recordActivity(bundleId, std::string(decision), route, std::move(sourceIp), host,
                       platform::decimalUInt16(port).value_or(0), "tcp", rules.isVpnConnected);
    };
    if (decision == "direct") {
        const bool handled = proxyTCPFlowDirect(flow, bundleId, rules);
        const auto interface = physicalInterface.snapshot();
        logger.debug(
            "DIRECT path: bundleId=%{public}s dest=%{public}s:%{public}s handled=%{bool}d "
            "interface=%{public}s",
            bundleId, host, port, handled, *interface ? (*interface)->name() : "none");
        record(handled ? "direct" : "vpn", handled ? physicalInterfaceIp() : getVpnTunnelIp());
        return handled;
    }
    const bool isConnected = rules.isVpnConnected;
    if (!isConnected && rules.vpnFallback == "block") {
        logger.error("VPN fallback BLOCK (filter-enforced): %{public}s -> %{public}s:%s", bundleId,
                     host, port);
        return false;
    }
    record(isConnected ? "vpn" : "direct", isConnected ? getVpnTunnelIp() : physicalInterfaceIp());
    logger.debug(
        "VPN path: bundleId=%{public}s dest=%{public}s:%{public}s vpnConnected=%{bool}d (OS "
        "handles)",
        bundleId, host, port, isConnected);
    return false;
}

std::optional<std::string> TransparentProxyProvider::physicalInterfaceIp() const {
    const auto interface = physicalInterface.snapshot();
    return *interface ? getIPForInterface((*interface)->name()) : std::nullopt;
}

}  // namespace vantry
