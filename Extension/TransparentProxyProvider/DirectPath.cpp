// From a flow decided "direct" to a session over the physical interface, or to what happens without
// one. The decision is taken once, when the flow arrives: after the claim there is no way back to the
// operating system's route.

#include <algorithm>

#include "Extension/TransparentProxyProvider.h"
#include "Platform/Common/Text.h"

namespace vantry {

using platform::NEAppProxyTCPFlow;
using platform::NSError;
using platform::NSLockGuard;
using platform::NWConnection;
using platform::NWEndpoint;

namespace {

// What kind of text a host is, for the log alone.
std::string_view hostType(std::string_view hostname) {
    const auto components = platform::nonEmptyComponents(hostname);
    if (components.size() == 4 && std::ranges::all_of(components, platform::isDecimalNumber))
        return "IPv4";
    return hostname.find(':') != std::string_view::npos ? "IPv6" : "hostname";
}

// Claims the flow and ends it at once; the completion keeps the flow and nothing else.
void closeAtOnce(const std::shared_ptr<NEAppProxyTCPFlow>& flow) {
    flow->openWithLocalEndpoint(nullptr, [flow](const std::optional<NSError>&) {
        flow->closeReadWithError(std::nullopt);
        flow->closeWriteWithError(std::nullopt);
    });
}

}  // namespace

std::atomic<std::int64_t> TransparentProxyProvider::nextSessionId{0};

bool TransparentProxyProvider::proxyTCPFlowDirect(const std::shared_ptr<NEAppProxyTCPFlow>& flow,
                                                  const std::string& bundleId,
                                                  const RuleState& rules) {
    const auto* endpoint = platform::hostEndpoint(flow->remoteEndpoint());
    if (!endpoint) {
        logger.error("Cannot proxy flow: invalid endpoint, falling back to OS");
        return false;
    }
    const auto& [hostname, port] = *endpoint;
    const auto interface = *physicalInterface.snapshot();
    if (!interface) return fallBackWithoutInterface(flow, bundleId, hostname, rules);

    auto parameters = platform::NWParameters::tcp();
    parameters.requiredInterface = interface;
    logger.debug("Binding to interface: %{public}s", interface->name());
    logger.debug("Direct proxy binding to %{public}s for %{public}s -> %{public}s:%{public}s",
                 interface->name(), bundleId, hostname, port);
    logger.debug("remoteEndpoint: %{public}s type=%{public}s interface=%{public}s", hostname,
                 hostType(hostname), interface->name());
    const auto remotePort = NWEndpoint::Port::fromString(port);
    if (!remotePort) {
        logger.error("Invalid port: %s, falling back to OS", port);
        return false;
    }
    auto connection = std::make_shared<NWConnection>(NWEndpoint::Host(hostname), *remotePort,
                                                     std::move(parameters));
    const auto sessionId = ++nextSessionId;
    const auto session =
        std::make_shared<ProxySession>(flow, std::move(connection), bundleId, sessionId, logger);
    // The flow object's address: the same for the life of the flow and no other live flow's.
    const auto flowHash = reinterpret_cast<FlowHash>(flow.get());
    std::size_t totalSessions = 0;
    {
        const NSLockGuard hold(sessionsLock);
        activeSessions[flowHash] = session;
        totalSessions = activeSessions.size();
    }
    logger.debug("Session created: sid=%ld flowHash=%ld bundleId=%{public}s totalSessions=%ld",
                 sessionId, flowHash, bundleId, totalSessions);
    session->start([weakSelf = weak_from_this(), flowHash, sessionId, bundleId] {
        if (const auto self = weakSelf.lock()) self->sessionEnded(flowHash, sessionId, bundleId);
    });
    endIfNoLongerDirect(flowHash, session);
    return true;
}

bool TransparentProxyProvider::fallBackWithoutInterface(
    const std::shared_ptr<NEAppProxyTCPFlow>& flow, const std::string& bundleId,
    const std::string& hostname, const RuleState& rules) {
    logger.debug("Direct fallback triggered: behavior=%{public}s bundleId=%{public}s",
                 rules.directFallback, bundleId);
    if (rules.directFallback == "block") {
        logger.error("No physical interface, BLOCKING direct flow per fallback setting: %{public}s",
                     bundleId);
        closeAtOnce(flow);
        return true;
    }
    logger.error("No physical interface, falling back to VPN per fallback setting: %{public}s",
                 bundleId);
    notifyDirectConnectionFailed(bundleId, hostname);
    return false;
}

void TransparentProxyProvider::sessionEnded(FlowHash flowHash, std::int64_t sessionId,
                                            const std::string& bundleId) {
    std::shared_ptr<ProxySession> removed;
    std::size_t remainingSessions = 0;
    {
        const NSLockGuard hold(sessionsLock);
        if (auto entry = activeSessions.extract(flowHash)) removed = std::move(entry.mapped());
        remainingSessions = activeSessions.size();
    }
    logger.debug("Session ended: sid=%ld flowHash=%ld bundleId=%{public}s remainingSessions=%ld",
                 sessionId, flowHash, bundleId, remainingSessions);
}

}  // namespace vantry
