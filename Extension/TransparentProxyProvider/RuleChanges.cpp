// The host application's signal that the rules file has changed, and what it sets off.

#include "Extension/FlowKillCoordinator.h"
#include "Extension/TransparentProxyProvider.h"

namespace vantry {

namespace {

constexpr std::string_view rulesChangedNotification = "org.quillmere.Vantry.rulesChanged";

}  // namespace

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

TransparentProxyProvider::RuleChange::RuleChange(TransparentProxyProvider& changing)
    : provider(changing) {
    provider.ruleChangesLock.lock();
    provider.setRulesChanging(true);
}

TransparentProxyProvider::RuleChange::~RuleChange() {
    provider.setRulesChanging(false);
    provider.ruleChangesLock.unlock();
}

void TransparentProxyProvider::handleRulesChangedNotification() {
    const RuleChange change(*this);
    logger.debug("Received rules-changed Darwin notification");
    const auto before = ruleState.snapshot();
    const auto& oldRules = *before->routingRules;
    logger.debug("Current routingRules.count BEFORE reload: %ld", oldRules.size());
    const bool isVerbose = platform::Logger::isEnabled(platform::LogLevel::debug);
    if (isVerbose)
        for (const auto& [bundleId, decision] : oldRules)
            logger.debug("Old rule: %{public}s -> %{public}s", bundleId, decision);

    loadRulesFromSharedFile();

    const auto now = ruleState.snapshot();
    const auto& newRules = *now->routingRules;
    if (isVerbose)
        logger.debug("Rules identical after reload: %{bool}d",
                     &oldRules == &newRules || oldRules == newRules);
    logger.debug("routingRules.count AFTER reload: %ld", newRules.size());
    std::size_t sessionCount = 0;
    {
        const platform::NSLockGuard hold(sessionsLock);
        sessionCount = activeSessions.size();
    }
    logger.debug("Active proxy sessions at notification time: %ld", sessionCount);

    killSessionsForChangedRules(oldRules, newRules);
    const auto newlyBlocked = difference(*now->blockedApps, *before->blockedApps);
    if (!newlyBlocked.empty()) killSessionsForBlockedApps(newlyBlocked);

    auto& coordinator = FlowKillCoordinator::shared();
    coordinator.updateMonitoredApps(vpnRoutedBundleIds(now->routingRules, now->blockedApps));
    coordinator.updateBlockedApps(now->blockedApps);

    const auto unblocked = difference(*before->blockedApps, *now->blockedApps);
    if (newlyBlocked.empty() && unblocked.empty()) return;
    logger.info("Block state changed: +%ld blocked, -%ld unblocked", newlyBlocked.size(),
                unblocked.size());
    flushDeclinedFlows();
}

}  // namespace vantry
