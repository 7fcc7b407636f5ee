// The host application's signal that the rules file has changed, and what it sets off.

#include "Extension/FlowKillCoordinator.h"
#include "Extension/TransparentProxyProvider.h"

namespace vantry {

void TransparentProxyProvider::registerForRulesChangedNotification() {
    platform::CFNotificationCenterAddObserver(
        platform::CFNotificationCenterGetDarwinNotifyCenter(), this, rulesChanged,
        rulesChangedNotification, nullptr,
        platform::CFNotificationSuspensionBehavior::deliverImmediately);
    logger.info("Registered for Darwin rules-changed notification");
}

void TransparentProxyProvider::rulesChanged(platform::CFNotificationCenter&, void* observer,
                                            std::string_view, const void*, const void*) {
    if (!observer) return;
    const auto provider = static_cast<TransparentProxyProvider*>(observer)->weak_from_this().lock();
    if (provider) provider->handleRulesChangedNotification();
}

void TransparentProxyProvider::handleRulesChangedNotification() {
    logger.debug("Received rules-changed Darwin notification");
    const auto oldRules = routingRules.snapshot();
    const auto oldBlocked = blockedApps.snapshot();
    logger.debug("Current routingRules.count BEFORE reload: %ld", oldRules->size());
    for (const auto& [bundleId, decision] : *oldRules)
        logger.debug("Old rule: %{public}s -> %{public}s", bundleId, decision);

    loadRulesFromSharedFile();

    const auto newRules = routingRules.snapshot();
    if (platform::Logger::isEnabled(platform::LogLevel::debug))
        logger.debug("Rules identical after reload: %{bool}d", *oldRules == *newRules);
    logger.debug("routingRules.count AFTER reload: %ld", newRules->size());
    std::size_t sessionCount = 0;
    {
        const platform::NSLockGuard hold(sessionsLock);
        sessionCount = activeSessions.size();
    }
    logger.debug("Active proxy sessions at notification time: %ld", sessionCount);

    killSessionsForChangedRules(*oldRules, *newRules);
    const auto blocked = blockedApps.snapshot();
    const auto newlyBlocked = difference(*blocked, *oldBlocked);
    if (!newlyBlocked.empty()) killSessionsForBlockedApps(newlyBlocked);

    auto& coordinator = FlowKillCoordinator::shared();
    coordinator.updateMonitoredApps(vpnRoutedBundleIds(*blocked));
    coordinator.updateBlockedApps(*blocked);

    const auto unblocked = difference(*oldBlocked, *blocked);
    if (newlyBlocked.empty() && unblocked.empty()) return;
    logger.info("Block state changed: +%ld blocked, -%ld unblocked", newlyBlocked.size(),
                unblocked.size());
    flushDeclinedFlows();
}

}  // namespace vantry
