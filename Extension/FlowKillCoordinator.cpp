#include "Extension/FlowKillCoordinator.h"

#include <algorithm>
#include <utility>

#include "Platform/TunnelGuard.h"

namespace vantry {

using platform::NSLockGuard;

namespace {

// How many members of `left` are missing in `right`.
std::size_t missing(const BundleIdSet& left, const BundleIdSet& right) {
    return static_cast<std::size_t>(std::ranges::count_if(
        left, [&](const std::string& member) { return !right.contains(member); }));
}

// How many members came and went between two sets.
struct SetChange {
    std::size_t added = 0;
    std::size_t removed = 0;

    SetChange(const SharedBundleIds& before, const SharedBundleIds& after) {
        if (before == after) return;
        added = missing(*after, *before);
        removed = missing(*before, *after);
    }
    bool isEmpty() const { return added == 0 && removed == 0; }
};

}  // namespace

FlowKillCoordinator& FlowKillCoordinator::shared() {
    static FlowKillCoordinator instance;
    return instance;
}

FlowKillCoordinator::FlowKillCoordinator() : childToParentMap(knownXpcMappings()) {}

const platform::StringMap<std::string>& FlowKillCoordinator::knownXpcMappings() {
    static const platform::StringMap<std::string> mappings{
        {"com.apple.WebKit.Networking", "com.apple.Safari"},
        {"com.apple.WebKit.WebContent", "com.apple.Safari"},
        {"com.apple.WebKit.GPU", "com.apple.Safari"},
        {"com.apple.Safari.SearchHelper", "com.apple.Safari"},
    };
    return mappings;
}

void FlowKillCoordinator::registerChildProcess(std::string_view childBundleId,
                                               std::string_view parentBundleId) {
    bool isNew = false;
    {
        const NSLockGuard hold(lock);
        const auto entry = childToParentMap.find(childBundleId);
        isNew = entry == childToParentMap.end();
        if (isNew)
            childToParentMap.emplace(childBundleId, parentBundleId);
        else
            entry->second = parentBundleId;
    }
    if (isNew)
        logger.debug("Registered child mapping: %{public}s -> %{public}s", childBundleId,
                     parentBundleId);
}

void FlowKillCoordinator::updateMonitoredApps(const SharedBundleIds& vpnRoutedBundleIds) {
    auto before = vpnRoutedBundleIds;
    {
        const NSLockGuard hold(lock);
        monitoredBundleIds.swap(before);
    }
    const SetChange change(before, vpnRoutedBundleIds);
    if (change.isEmpty()) return;
    logger.info("Monitoring updated: +%ld -%ld total=%ld", change.added, change.removed,
                vpnRoutedBundleIds->size());
}

void FlowKillCoordinator::updateBlockedApps(const SharedBundleIds& newBlockedBundleIds) {
    auto before = newBlockedBundleIds;
    {
        const NSLockGuard hold(lock);
        blockedBundleIds.swap(before);
    }
    const SetChange change(before, newBlockedBundleIds);
    if (change.isEmpty()) return;
    logger.info("Blocked apps updated: +%ld -%ld total=%ld", change.added, change.removed,
                newBlockedBundleIds->size());
}

void FlowKillCoordinator::updateVpnState(bool isConnected, std::string_view fallback) {
    bool isFirst = false;
    {
        const NSLockGuard hold(lock);
        isFirst = !isStateInitialized;
        isVpnConnected = isConnected;
        vpnFallback = fallback;
        isStateInitialized = true;
    }
    keepFlowsInTunnel();
    logger.info("VPN state updated: connected=%{bool}d fallback=%s firstInit=%{bool}d", isConnected,
                fallback, isFirst);
}

// Calls come one after the other, each with what holds by then, so that the last one is right.
void FlowKillCoordinator::keepFlowsInTunnel() {
    const NSLockGuard inOrder(tunnelGuardLock);
    bool isWanted = false;
    bool isConnected = false;
    {
        const NSLockGuard hold(lock);
        isWanted = vpnFallback == "block";
        isConnected = isVpnConnected;
    }
    platform::keepWatchedFlowsInTunnel(isWanted, isConnected);
}

std::string_view FlowKillCoordinator::resolveChildMapping(std::string_view bundleId) const {
    const auto entry = childToParentMap.find(bundleId);
    return entry == childToParentMap.end() ? bundleId : std::string_view(entry->second);
}

bool FlowKillCoordinator::matches(const BundleIdSet& members, std::string_view bundleId) const {
    return covers(members, resolveChildMapping(bundleId));
}

bool FlowKillCoordinator::shouldMonitorFlow(std::string_view bundleId) const {
    const NSLockGuard hold(lock);
    return matches(*monitoredBundleIds, bundleId);
}

bool FlowKillCoordinator::shouldBlockFlow(std::string_view bundleId) const {
    const NSLockGuard hold(lock);
    return matches(*blockedBundleIds, bundleId);
}

bool FlowKillCoordinator::shouldBlockForVpnFallback(std::string_view bundleId) const {
    const NSLockGuard hold(lock);
    return !isVpnConnected && vpnFallback == "block" && matches(*monitoredBundleIds, bundleId);
}

FlowKillCoordinator::Answers FlowKillCoordinator::answersFor(std::string_view bundleId,
                                                             bool isMapped) const {
    const NSLockGuard hold(lock);
    const auto name = isMapped ? bundleId : resolveChildMapping(bundleId);
    const bool isMonitored = covers(*monitoredBundleIds, name);
    return {.name = std::string(name),
            .hasReceivedState = isStateInitialized,
            .isMonitored = isMonitored,
            .isBlocked = covers(*blockedBundleIds, name),
            .isBlockedForVpnFallback = !isVpnConnected && vpnFallback == "block" && isMonitored};
}

bool FlowKillCoordinator::hasReceivedState() const {
    const NSLockGuard hold(lock);
    return isStateInitialized;
}

void FlowKillCoordinator::resetState() {
    auto monitored = share({});
    auto blocked = monitored;
    std::deque<ActivityLogEntryIPC> dropped;
    {
        const NSLockGuard hold(lock);
        monitoredBundleIds.swap(monitored);
        blockedBundleIds.swap(blocked);
        isVpnConnected = true;
        vpnFallback = "allow";
        isStateInitialized = false;
        pendingQuicBlocks.swap(dropped);
    }
    keepFlowsInTunnel();
    logger.info("Coordinator state reset (proxy stopped)");
}

void FlowKillCoordinator::recordQuicBlock(const ActivityLogEntryIPC& entry) {
    const NSLockGuard hold(lock);
    pendingQuicBlocks.push_back(entry);
    if (pendingQuicBlocks.size() > maxActivityLogEntries) pendingQuicBlocks.pop_front();
}

std::deque<ActivityLogEntryIPC> FlowKillCoordinator::drainQuicBlocks() {
    const NSLockGuard hold(lock);
    return std::exchange(pendingQuicBlocks, {});
}

}  // namespace vantry
