// Makes the operating system offer declined flows once more after a rule change, by applying the
// network settings twice: with an extra rule, and then without it. One flush at a time; a request
// during a flush is dropped. Each call is made from the completion of the one before.
//
//   idle ──request──► sentinel ──applied──► clean ──applied──► idle
//                        └──failed──► idle    └──failed──► retry ──either──► idle

#include "Extension/TransparentProxyProvider.h"

namespace vantry {

using platform::NENetworkRule;
using platform::NSError;

namespace {

// Nothing connects to this loopback address: the rule only makes one list differ from the other.
NENetworkRule sentinelRule() {
    return {.remoteNetwork = platform::NWHostEndpoint::endpointWithHostname("127.255.255.254", "0"),
            .remotePrefix = 32,
            .localNetwork = std::nullopt,
            .localPrefix = 0,
            .protocol = NENetworkRule::Protocol::TCP,
            .direction = NENetworkRule::TrafficDirection::outbound};
}

}  // namespace

void TransparentProxyProvider::flushDeclinedFlows() {
    if (isFlushingDeclinedFlows.exchange(true)) {
        logger.debug("Flush already in progress, skipping");
        return;
    }
    logger.debug("Flushing declined flows: adding sentinel rule");
    auto settings = createProxySettings();
    auto rules = settings.includedNetworkRules();
    rules.push_back(sentinelRule());
    settings.setIncludedNetworkRules(std::move(rules));
    setTunnelNetworkSettings(std::move(settings),
                             [weakSelf = weak_from_this()](const std::optional<NSError>& error) {
                                 if (const auto self = weakSelf.lock())
                                     self->sentinelApplied(error);
                             });
}

void TransparentProxyProvider::sentinelApplied(const std::optional<NSError>& error) {
    if (error) {
        logger.error("Failed to apply sentinel settings: %s", error->localizedDescription);
        isFlushingDeclinedFlows = false;
        return;
    }
    logger.debug("Sentinel applied, removing to restore clean settings...");
    setTunnelNetworkSettings(createProxySettings(),
                             [self = shared_from_this()](const std::optional<NSError>& cleanError) {
                                 self->cleanSettingsApplied(cleanError);
                             });
}

void TransparentProxyProvider::cleanSettingsApplied(const std::optional<NSError>& error) {
    if (!error) {
        logger.debug("Clean settings restored, NECP policy active");
        isFlushingDeclinedFlows = false;
        return;
    }
    logger.error("Failed to restore clean settings: %s, retrying...", error->localizedDescription);
    setTunnelNetworkSettings(createProxySettings(),
                             [self = shared_from_this()](const std::optional<NSError>& retryError) {
                                 self->cleanSettingsRetried(retryError);
                             });
}

void TransparentProxyProvider::cleanSettingsRetried(const std::optional<NSError>& error) {
    if (error)
        logger.error("Retry also failed: %s", error->localizedDescription);
    else
        logger.debug("Clean settings restored on retry");
    isFlushingDeclinedFlows = false;
}

}  // namespace vantry
