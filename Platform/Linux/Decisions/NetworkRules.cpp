#include "Platform/Linux/Decisions/NetworkRules.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>

#include "Platform/Common/Text.h"

namespace platform::interception {

namespace {

using Address = std::array<std::uint8_t, 16>;

bool sharesPrefix(const Address& left, const Address& right, unsigned bits) {
    for (unsigned index = 0; index < left.size() && bits > 0; ++index) {
        const unsigned here = std::min(bits, 8u);
        const auto mask = static_cast<std::uint8_t>(0xff00u >> here);
        if ((left[index] & mask) != (right[index] & mask)) return false;
        bits -= here;
    }
    return true;
}

// A network that is no numeric address covers nothing. Port 0 stands for every port.
bool covers(const std::optional<NWHostEndpoint>& network, unsigned prefix, int family,
            const Address& address, std::uint16_t port) {
    if (!network) return true;
    Address wanted{};
    if (inet_pton(family, network->hostname.c_str(), wanted.data()) != 1) return false;
    const auto wantedPort = decimalUInt16(network->port);
    if (!wantedPort || (*wantedPort != 0 && *wantedPort != port)) return false;
    return sharesPrefix(wanted, address, prefix);
}

bool asksFor(const NENetworkRule& rule, const FlowTuple& flow) {
    using Protocol = NENetworkRule::Protocol;
    const Protocol protocol = flow.protocol == IPPROTO_TCP ? Protocol::TCP : Protocol::UDP;
    return rule.direction != NENetworkRule::TrafficDirection::inbound &&
           (rule.protocol == Protocol::any || rule.protocol == protocol) &&
           covers(rule.remoteNetwork, rule.remotePrefix, flow.family, flow.destinationAddress,
                  flow.destinationPort) &&
           covers(rule.localNetwork, rule.localPrefix, flow.family, flow.sourceAddress,
                  flow.sourcePort);
}

}  // namespace

bool asksFor(const std::vector<NENetworkRule>& rules, const FlowTuple& flow) {
    return std::any_of(rules.begin(), rules.end(),
                       [&](const NENetworkRule& rule) { return asksFor(rule, flow); });
}

bool keepsAllRules(const std::vector<NENetworkRule>& before,
                   const std::vector<NENetworkRule>& after) {
    return std::all_of(before.begin(), before.end(), [&](const NENetworkRule& rule) {
        return std::find(after.begin(), after.end(), rule) != after.end();
    });
}

}  // namespace platform::interception
