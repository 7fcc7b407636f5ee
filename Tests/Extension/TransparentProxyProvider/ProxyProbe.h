// Asks the provider single questions that no flow reaches alone, and looks at what stories and random
// mixtures must keep in order. For tests and benchmarks.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Extension/FlowKillCoordinator.h"
#include "Extension/TransparentProxyProvider.h"

namespace vantry {

class ProxyProbe {
public:
    explicit ProxyProbe(platform::NETransparentProxyProvider& provider)
        : proxy(static_cast<TransparentProxyProvider&>(provider)) {}

    std::string getRoutingDecision(std::string_view bundleId) const {
        return std::string(rules()->getRoutingDecision(bundleId));
    }
    std::string resolveParentBundleId(const std::string& bundleId) const {
        return proxy.resolveParentBundleId(bundleId, std::nullopt, *rules());
    }
    bool isProtectedVpnClient(std::string_view bundleId) const {
        return proxy.isProtectedVpnClient(bundleId);
    }
    void loadRulesFromSharedFile() const {
        const platform::NSLockGuard hold(proxy.ruleChangesLock);
        proxy.loadRulesFromSharedFile();
    }

    // The sessions in the table, by their numbers.
    std::map<std::int64_t, std::weak_ptr<ProxySession>> table() const {
        const platform::NSLockGuard hold(proxy.sessionsLock);
        std::map<std::int64_t, std::weak_ptr<ProxySession>> sessions;
        for (const auto& [flowHash, session] : proxy.activeSessions)
            sessions.emplace(session->sessionId, session);
        return sessions;
    }
    std::size_t sessions() const { return table().size(); }
    static bool hasEnded(const ProxySession& session) { return session.isCancelled(); }

    // The identifiers of the activity log's entries, and of the records that the filter has left.
    std::vector<platform::UUID> log() const {
        const platform::NSLockGuard hold(proxy.activityLogLock);
        return identifiersOf(proxy.activityLog);
    }
    static std::vector<platform::UUID> recordsLeft() {
        auto& coordinator = FlowKillCoordinator::shared();
        const platform::NSLockGuard hold(coordinator.lock);
        return identifiersOf(coordinator.pendingQuicBlocks);
    }

    bool isFlushing() const { return proxy.isFlushingDeclinedFlows; }
    std::shared_ptr<const RuleState> rules() const { return proxy.ruleState.snapshot(); }

    // What both providers share.
    struct Shared {
        std::set<std::string> watched, blocked;
        bool isVpnConnected = true;
        std::string vpnFallback = "allow";
        bool isInitialized = false;

        bool operator==(const Shared&) const = default;
    };
    static Shared shared() {
        auto& coordinator = FlowKillCoordinator::shared();
        const platform::NSLockGuard hold(coordinator.lock);
        const auto& watched = *coordinator.monitoredBundleIds;
        const auto& blocked = *coordinator.blockedBundleIds;
        return {{watched.begin(), watched.end()},
                {blocked.begin(), blocked.end()},
                coordinator.isVpnConnected,
                coordinator.vpnFallback,
                coordinator.isStateInitialized};
    }

private:
    template <class Entries>
    static std::vector<platform::UUID> identifiersOf(const Entries& entries) {
        std::vector<platform::UUID> identifiers;
        identifiers.reserve(entries.size());
        for (const auto& entry : entries) identifiers.push_back(entry.id);
        return identifiers;
    }

    TransparentProxyProvider& proxy;
};

}  // namespace vantry
