// What the machine's network looks like at one moment: its interfaces, their addresses, and how each
// reaches the rest of the world. Plain values, made by the network monitor.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Linux/Network/SocketAddress.h"
#include "Platform/Network.h"

namespace platform {

struct InterfaceAddress {
    int family = 0;
    std::array<std::uint8_t, 16> bytes{};  // network byte order; IPv4 in the first four
    int prefixLength = 0;
    bool isLinkLocal = false;
    bool isDeprecated = false;
    bool isTemporary = false;  // of IPv6's privacy extensions, where they are in use

    friend bool operator==(const InterfaceAddress&, const InterfaceAddress&) = default;
};

// How an interface reaches the rest of the world in one family.
struct DefaultRoute {
    // Without one the interface itself is the way, as with a point-to-point link.
    std::optional<std::array<std::uint8_t, 16>> gateway;
    std::uint32_t metric = 0;
    // The route is gone while the interface still stands: something, a VPN as a rule, took it away.
    bool isRemembered = false;

    friend bool operator==(const DefaultRoute&, const DefaultRoute&) = default;
};

struct NetworkInterface {
    int index = 0;
    std::string name;
    // The name under which tunnels are shown: "utunN" or "ipsecN"; of others the name itself.
    std::string shownName;
    NWInterface::InterfaceType type = NWInterface::InterfaceType::other;
    std::string linkKind;  // of the kernel's driver; empty for hardware
    bool isTunnel = false;
    unsigned flags = 0;  // IFF_UP and so on
    bool isUp = false;   // running, not only configured
    std::vector<InterfaceAddress> addresses;
    std::optional<DefaultRoute> ipv4;
    std::optional<DefaultRoute> ipv6;

    // Up, with an address that reaches beyond the link, and with a way out.
    bool isAvailable() const;
    // The smaller of the two routes' metrics.
    std::uint32_t metric() const;

    friend bool operator==(const NetworkInterface&, const NetworkInterface&) = default;
};

struct NetworkState {
    std::vector<NetworkInterface> interfaces;  // in the order of their indices

    // Null if there is none of this name.
    const NetworkInterface* named(std::string_view name) const;
    // Whether any interface has this address.
    bool hasAddress(const SocketAddress& address) const;
    // The interfaces that are available, the preferred one first.
    NWPath path() const;

    friend bool operator==(const NetworkState&, const NetworkState&) = default;
};

}  // namespace platform
