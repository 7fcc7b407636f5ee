// What brings the proxy up and down, and what happens on sleep and wake.

#include "Extension/FlowKillCoordinator.h"
#include "Extension/TransparentProxyProvider.h"

namespace vantry {

using platform::NSError;
using platform::NSLockGuard;

void TransparentProxyProvider::startProxy(std::optional<platform::JSONObject>,
                                          ErrorCompletion completionHandler) {
    logger.info("startProxy() called (invocation #%ld)", ++startProxyCount);
    logger.info("Starting transparent proxy...");
    hasLoggedFirstFlow = false;
    {
        const RuleChange change(*this);
        loadRoutingRules();
        loadRulesFromSharedFile();

        const auto rules = ruleState.snapshot()->routingRules;
        logger.debug("Initial rules after startProxy load (%ld rules):", rules->size());
        if (platform::Logger::isEnabled(platform::LogLevel::debug))
            for (const auto& [bundleId, decision] : *rules)
                logger.debug("Startup rule: %{public}s -> %{public}s", bundleId, decision);

        registerForRulesChangedNotification();
        discoverVpnClients();
        // Blocked applications stay in here; the first change of rules takes them out.
        FlowKillCoordinator::shared().updateMonitoredApps(vpnRoutedBundleIds(rules, share({})));
    }
    startPathMonitor();
    setTunnelNetworkSettings(
        createProxySettings(),
        [weakSelf = weak_from_this(),
         completionHandler = std::move(completionHandler)](std::optional<NSError> error) mutable {
            if (const auto self = weakSelf.lock()) {
                if (error)
                    self->logger.error("Failed to set proxy settings: %s",
                                       error->localizedDescription);
                else
                    self->logger.info("Transparent proxy started with %ld rules",
                                      self->ruleState.snapshot()->routingRules->size());
            }
            completionHandler(std::move(error));
        });
}

void TransparentProxyProvider::stopProxy(platform::NEProviderStopReason reason,
                                         platform::Completion<> completionHandler) {
    logger.info("[STOP] stopProxy() entered, reason: %ld", static_cast<long>(reason));
    platform::CFNotificationCenterRemoveEveryObserver(
        platform::CFNotificationCenterGetDarwinNotifyCenter(), this);
    logger.info("[STOP] Darwin observer removed");

    SessionTable sessions;
    {
        const NSLockGuard hold(sessionsLock);
        sessions.swap(activeSessions);
    }
    logger.info("[STOP] Collected %ld sessions to cancel", sessions.size());
    for (const auto& [flowHash, session] : sessions) session->cancel();
    logger.info("[STOP] All sessions cancelled");

    std::shared_ptr<platform::NWPathMonitor> monitor;
    {
        const NSLockGuard hold(pathMonitorLock);
        monitor.swap(pathMonitor);
    }
    if (monitor) monitor->cancel();

    {
        const NSLockGuard noChange(ruleChangesLock);
        FlowKillCoordinator::shared().resetState();
    }
    logger.info("[STOP] Coordinator state reset — filter now fail-open");
    completionHandler();
    logger.info("[STOP] stopProxy() completionHandler called — shutdown complete");
}

void TransparentProxyProvider::sleep(platform::Completion<> completionHandler) {
    logger.info("System sleeping...");
    completionHandler();
}

void TransparentProxyProvider::wake() {
    logger.info("System waking...");
    {
        const RuleChange change(*this);
        loadRoutingRules();
    }
    discoverVpnClients();
    processCache.removeAll();
    startPathMonitor();
}

}  // namespace vantry
