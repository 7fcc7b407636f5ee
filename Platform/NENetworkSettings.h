// Which flows the operating system offers to the proxy. Plain values.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/NEAppProxyFlow.h"

namespace platform {

struct NENetworkRule {
    enum class Protocol { any = 0, TCP = 1, UDP = 2 };
    enum class TrafficDirection { any = 0, inbound = 1, outbound = 2 };

    std::optional<NWHostEndpoint> remoteNetwork;  // nothing: every remote address
    unsigned remotePrefix = 0;
    std::optional<NWHostEndpoint> localNetwork;  // nothing: every local address
    unsigned localPrefix = 0;
    Protocol protocol = Protocol::any;
    TrafficDirection direction = TrafficDirection::any;

    friend bool operator==(const NENetworkRule&, const NENetworkRule&) = default;
};

class NETransparentProxyNetworkSettings {
public:
    explicit NETransparentProxyNetworkSettings(std::string tunnelRemoteAddress)
        : tunnelRemoteAddress_(std::move(tunnelRemoteAddress)) {}

    const std::string& tunnelRemoteAddress() const { return tunnelRemoteAddress_; }
    const std::vector<NENetworkRule>& includedNetworkRules() const { return includedNetworkRules_; }
    void setIncludedNetworkRules(std::vector<NENetworkRule> rules) {
        includedNetworkRules_ = std::move(rules);
    }

    friend bool operator==(const NETransparentProxyNetworkSettings&,
                           const NETransparentProxyNetworkSettings&) = default;

private:
    std::string tunnelRemoteAddress_;
    std::vector<NENetworkRule> includedNetworkRules_;
};

}  // namespace platform
