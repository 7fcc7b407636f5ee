// Which flows the operating system offers to the proxy: every outbound TCP and UDP flow. All choosing
// between flows is done by the intake.

#include "Extension/TransparentProxyProvider.h"
#include "Platform/NENetworkSettings.h"

namespace vantry {

using platform::NENetworkRule;

namespace {

NENetworkRule everyOutboundFlow(NENetworkRule::Protocol protocol) {
    return {.remoteNetwork = std::nullopt,
            .remotePrefix = 0,
            .localNetwork = std::nullopt,
            .localPrefix = 0,
            .protocol = protocol,
            .direction = NENetworkRule::TrafficDirection::outbound};
}

}  // namespace

platform::NETransparentProxyNetworkSettings TransparentProxyProvider::createProxySettings() {
    platform::NETransparentProxyNetworkSettings settings("127.0.0.1");
    settings.setIncludedNetworkRules({everyOutboundFlow(NENetworkRule::Protocol::TCP),
                                      everyOutboundFlow(NENetworkRule::Protocol::UDP)});
    return settings;
}

}  // namespace vantry
