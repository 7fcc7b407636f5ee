// Asks the provider single questions that no flow reaches alone, and looks at what a story may not
// leave behind. For tests and benchmarks.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Extension/TransparentProxyProvider.h"

namespace vantry {

class ProxyProbe {
public:
    explicit ProxyProbe(platform::NETransparentProxyProvider& provider)
        : proxy(static_cast<TransparentProxyProvider&>(provider)) {}

    std::string getRoutingDecision(std::string_view bundleId) const {
        return proxy.getRoutingDecision(bundleId);
    }
    bool hasKnownRule(std::string_view bundleId) const { return proxy.hasKnownRule(bundleId); }
    std::string resolveParentBundleId(const std::string& bundleId) const {
        return proxy.resolveParentBundleId(bundleId, std::nullopt);
    }
    bool isProtectedVpnClient(std::string_view bundleId) const {
        return proxy.isProtectedVpnClient(bundleId);
    }
    void loadRulesFromSharedFile() const { proxy.loadRulesFromSharedFile(); }

    std::size_t sessions() const {
        const platform::NSLockGuard hold(proxy.sessionsLock);
        return proxy.activeSessions.size();
    }
    std::size_t logLength() const {
        const platform::NSLockGuard hold(proxy.activityLogLock);
        return proxy.activityLog.size();
    }
    bool isFlushing() const { return proxy.isFlushingDeclinedFlows; }
    std::shared_ptr<const RuleTable> rules() const { return proxy.routingRules.snapshot(); }
    std::shared_ptr<const BundleIdSet> blocked() const { return proxy.blockedApps.snapshot(); }

private:
    TransparentProxyProvider& proxy;
};

}  // namespace vantry
