#include "Platform/Linux/Steering/Uplinks.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>

#include "Platform/Linux/Network/RememberedRoutes.h"
#include "Platform/Linux/Rules/SteeringMarks.h"

namespace platform::steering {

namespace {

// Addresses of a site alone (fc00::/7), which nothing outside of it answers.
bool isOfSite(const InterfaceAddress& address) {
    return address.family == AF_INET6 && (address.bytes[0] & 0xfe) == 0xfc;
}

// The rules by which one address of an interface is preferred to another for a far destination (RFC 6724, 5: 3, 6
// and 7), the first difference counting.
std::array<bool, 3> drawbacksOf(const InterfaceAddress& address) {
    return {isOfSite(address), address.isDeprecated, !address.isTemporary};
}

// As the kernel chooses: the first address on the gateway's own link, else the one that suits best, the first of
// equals. Gateways of IPv6 have addresses of the link.
std::optional<InterfaceAddress> sourceOf(const Reach& reach) {
    if (reach.addresses.empty()) return std::nullopt;
    if (reach.route && reach.route->gateway)
        for (const auto& address : reach.addresses)
            if (isOnLinkOf(address, *reach.route->gateway)) return address;
    return *std::ranges::min_element(reach.addresses, {}, drawbacksOf);
}

// Those that reach beyond the link, without the tunnels' where others are left.
std::vector<InterfaceAddress> addressesOf(const NetworkInterface& interface, int family,
                                          const TunnelAddresses& ofTunnels) {
    std::vector<InterfaceAddress> all;
    for (const auto& address : interface.addresses)
        if (address.family == family && !address.isLinkLocal) all.push_back(address);
    std::vector<InterfaceAddress> own;
    for (const auto& address : all)
        if (!ofTunnels.contains({family, address.bytes})) own.push_back(address);
    return own.empty() ? all : own;
}

Reach reachOf(const NetworkInterface& interface, int family, const TunnelAddresses& ofTunnels) {
    Reach reach;
    // A link that is down has no way out, whatever is remembered of it.
    if (interface.isUp) reach.route = family == AF_INET ? interface.ipv4 : interface.ipv6;
    reach.addresses = addressesOf(interface, family, ofTunnels);
    reach.source = sourceOf(reach);
    return reach;
}

}  // namespace

bool Reach::has(const std::array<std::uint8_t, 16>& address) const {
    return std::ranges::find(addresses, address, &InterfaceAddress::bytes) != addresses.end();
}

const Reach& Uplink::reach(int family) const { return family == AF_INET ? ipv4 : ipv6; }

bool Uplinks::follow(const NetworkState& network, const TunnelAddresses& ofTunnels) {
    std::erase_if(uplinks, [&](const Uplink& uplink) {
        const auto* const present = network.named(uplink.name);
        return present == nullptr || present->index != uplink.interfaceIndex;
    });
    bool hasRoom = true;
    for (const auto& interface : network.interfaces) {
        auto known = std::ranges::find(uplinks, interface.index, &Uplink::interfaceIndex);
        if (known == uplinks.end()) {
            if (interface.isTunnel || !interface.isAvailable()) continue;
            const unsigned number = freeNumber();
            if (number == 0) {
                hasRoom = false;
                continue;
            }
            uplinks.push_back({number, interface.index, interface.name, {}, {}});
            known = uplinks.end() - 1;
        }
        known->ipv4 = reachOf(interface, AF_INET, ofTunnels);
        known->ipv6 = reachOf(interface, AF_INET6, ofTunnels);
    }
    return hasRoom;
}

unsigned Uplinks::freeNumber() const {
    for (unsigned number = 1; number <= mostUplinks; ++number)
        if (std::ranges::find(uplinks, number, &Uplink::number) == uplinks.end()) return number;
    return 0;
}

}  // namespace platform::steering
