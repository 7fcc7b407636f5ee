#include "Extension/FlowKillFilterProvider.h"

#include <utility>

#include "Platform/Common/Text.h"

namespace vantry {

using platform::Data;
using platform::NEFilterDataVerdict;
using platform::NEFilterFlow;
using platform::NEFilterNewFlowVerdict;
using platform::NEFilterSocketFlow;
using platform::NWHostEndpoint;

namespace {

constexpr int datagramSocket = 2;

// A socket flow as the verdicts see it: what it is called, and where it goes if that is a host.
struct SocketFlowView {
    std::string_view label;
    const NWHostEndpoint* endpoint;

    explicit SocketFlowView(const NEFilterSocketFlow& flow)
        : label(flow.socketType() == datagramSocket ? "UDP" : "TCP"),
          endpoint(platform::hostEndpoint(flow.remoteEndpoint())) {}

    bool isUDP() const { return label == "UDP"; }
    bool goesToPort(std::string_view port) const { return endpoint && endpoint->port == port; }
    std::string_view hostForLog() const {
        return endpoint ? std::string_view(endpoint->hostname) : "?";
    }
    std::string_view portForLog() const {
        return endpoint ? std::string_view(endpoint->port) : "?";
    }
};

std::optional<SocketFlowView> socketFlow(const NEFilterFlow& flow) {
    const auto* socket = dynamic_cast<const NEFilterSocketFlow*>(&flow);
    if (!socket) return std::nullopt;
    return SocketFlowView(*socket);
}

ActivityLogEntryIPC blockRecord(const std::string& bundleId, std::string_view routingDecision,
                                const NWHostEndpoint& endpoint, bool isUDP) {
    return {.id = platform::UUID::random(),
            .timestamp = platform::Date::now(),
            .bundleId = bundleId,
            .appName = std::string(platform::lastComponent(bundleId)),
            .routingDecision = std::string(routingDecision),
            .actualRoute = "blocked",
            .sourceIp = std::nullopt,
            .destinationIp = endpoint.hostname,
            .destinationPort = platform::decimalUInt16(endpoint.port).value_or(0),
            .protocolType = isUDP ? "udp" : "tcp",
            .isVpnConnected = false};
}

bool isKnownToCoordinator(const std::string& bundleId) {
    const auto& coordinator = FlowKillCoordinator::shared();
    return coordinator.shouldMonitorFlow(bundleId) || coordinator.shouldBlockFlow(bundleId);
}

void recordBlock(const std::string& bundleId, std::string_view routingDecision,
                 const SocketFlowView& flow) {
    if (flow.endpoint)
        FlowKillCoordinator::shared().recordQuicBlock(
            blockRecord(bundleId, routingDecision, *flow.endpoint, flow.isUDP()));
}

}  // namespace

void FlowKillFilterProvider::startFilter(ErrorCompletion completionHandler) {
    logger.info("Filter provider started");
    applySettings({.rules = {}, .defaultAction = platform::NEFilterAction::filterData},
                  [weakSelf = weak_from_this(), completionHandler = std::move(completionHandler)](
                      std::optional<platform::NSError> error) mutable {
                      if (const auto self = weakSelf.lock()) {
                          if (error)
                              self->logger.error("Failed to apply filter settings: %s",
                                                 error->description());
                          else
                              self->logger.info("Filter settings applied (default: filterData)");
                      }
                      completionHandler(std::move(error));
                  });
}

void FlowKillFilterProvider::stopFilter(platform::NEProviderStopReason reason,
                                        platform::Completion<> completionHandler) {
    logger.info("Filter provider stopped, reason: %ld", static_cast<long>(reason));
    completionHandler();
}

std::optional<std::string> FlowKillFilterProvider::resolveAppBundleId(const NEFilterFlow& from) {
    const auto& auditToken = from.sourceAppAuditToken();
    if (!auditToken) {
        logger.debug("No auditToken on flow");
        return std::nullopt;
    }
    if (auto cached = processCache.find(*auditToken)) return cached;

    const auto pid = ProcessUtils::pidFromAuditToken(*auditToken);
    if (!pid) {
        logger.debug("auditToken parse failed, size=%ld", auditToken->length());
        return std::nullopt;
    }
    const auto names = namesOf(*pid, isKnownToCoordinator);
    if (names.parent)
        logger.debug("Resolved %{public}s -> %{public}s via process tree",
                     names.own ? *names.own : "pid:" + std::to_string(*pid), *names.parent);
    if (const auto& found = names.found()) {
        cacheProcessResult(*auditToken, *found);
        return found;
    }
    logger.debug("pid=%d path=%{public}s bundleId=nil", *pid,
                 ProcessUtils::getPathForPid(*pid).value_or("<no path>"));
    return std::nullopt;
}

void FlowKillFilterProvider::cacheProcessResult(const Data& auditToken,
                                                const std::string& bundleId) {
    processCache.store(auditToken, bundleId);
}

NEFilterNewFlowVerdict FlowKillFilterProvider::handleNewFlow(const NEFilterFlow& flow) {
    const auto bundleId = resolveAppBundleId(flow);
    if (!bundleId) {
        logger.debug("handleNewFlow: no bundleId resolved, allowing");
        return NEFilterNewFlowVerdict::allowVerdict();
    }
    const auto& coordinator = FlowKillCoordinator::shared();
    if (!coordinator.hasReceivedState() && coordinator.shouldMonitorFlow(*bundleId)) {
        logger.info("DROP (uninitialized): %{public}s", *bundleId);
        return NEFilterNewFlowVerdict::dropVerdict();
    }
    if (coordinator.shouldBlockFlow(*bundleId)) return verdictForBlockedApp(flow, *bundleId);
    if (coordinator.shouldBlockForVpnFallback(*bundleId))
        return verdictForVpnFallback(flow, *bundleId);
    if (coordinator.shouldMonitorFlow(*bundleId)) {
        logger.debug("MONITORING flow: %{public}s", *bundleId);
        return NEFilterNewFlowVerdict::filterDataVerdict(false, 0, true, 1);
    }
    return NEFilterNewFlowVerdict::allowVerdict();
}

// A blocked application keeps its DNS.
NEFilterNewFlowVerdict FlowKillFilterProvider::verdictForBlockedApp(
    const NEFilterFlow& flow, const std::string& bundleId) const {
    const auto socket = socketFlow(flow);
    if (!socket) {
        logger.info("BLOCK: %{public}s (non-socket flow)", bundleId);
        return NEFilterNewFlowVerdict::dropVerdict();
    }
    if (socket->isUDP() && socket->goesToPort(dnsPort))
        return NEFilterNewFlowVerdict::allowVerdict();
    logger.info("BLOCK: %{public}s %s -> %{public}s:%s", bundleId, socket->label,
                socket->hostForLog(), socket->portForLog());
    recordBlock(bundleId, "block", *socket);
    return NEFilterNewFlowVerdict::dropVerdict();
}

// Of datagrams only QUIC's port is blocked while the VPN is down.
NEFilterNewFlowVerdict FlowKillFilterProvider::verdictForVpnFallback(
    const NEFilterFlow& flow, const std::string& bundleId) const {
    const auto socket = socketFlow(flow);
    if (!socket) {
        logger.info("VPN BLOCK: %{public}s", bundleId);
        return NEFilterNewFlowVerdict::dropVerdict();
    }
    if (socket->isUDP() && !socket->goesToPort(quicPort))
        return NEFilterNewFlowVerdict::allowVerdict();
    logger.info("VPN BLOCK: %{public}s %s -> %{public}s:%s", bundleId, socket->label,
                socket->hostForLog(), socket->portForLog());
    recordBlock(bundleId, "vpn", *socket);
    return NEFilterNewFlowVerdict::dropVerdict();
}

NEFilterDataVerdict FlowKillFilterProvider::handleOutboundData(const NEFilterFlow& flow,
                                                               std::int64_t readBytesStartOffset,
                                                               const Data& readBytes) {
    const auto bundleId = resolveAppBundleId(flow);
    if (!bundleId) return NEFilterDataVerdict::allowVerdict();

    const auto& coordinator = FlowKillCoordinator::shared();
    if (coordinator.shouldBlockFlow(*bundleId)) {
        logger.info("BLOCK DROP (existing flow): %{public}s offset=%ld", *bundleId,
                    readBytesStartOffset);
        return NEFilterDataVerdict::dropVerdict();
    }
    const auto socket = socketFlow(flow);
    if (socket && socket->isUDP() && socket->goesToPort(quicPort) &&
        coordinator.shouldBlockForVpnFallback(*bundleId)) {
        logger.info("QUIC BLOCK (deferred): %{public}s -> %{public}s:443", *bundleId,
                    socket->hostForLog());
        recordBlock(*bundleId, "vpn", *socket);
        return NEFilterDataVerdict::dropVerdict();
    }
    if (coordinator.shouldBlockForVpnFallback(*bundleId)) {
        logger.info("VPN FALLBACK DROP: %{public}s offset=%ld", *bundleId, readBytesStartOffset);
        return NEFilterDataVerdict::dropVerdict();
    }
    if (coordinator.shouldMonitorFlow(*bundleId))
        return NEFilterDataVerdict::dataVerdict(readBytes.length(), 1);
    logger.info("DROP stale VPN flow: %{public}s offset=%ld", *bundleId, readBytesStartOffset);
    return NEFilterDataVerdict::dropVerdict();
}

}  // namespace vantry
