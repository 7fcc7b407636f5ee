// The physical interfaces by which steered connections leave. Each has a number for as long as it
// exists, which is what marks, routing tables and packet rules call it by. Plain values; `Uplinks`
// belongs to one thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/Network/NetworkState.h"

namespace platform::steering {

// How an interface reaches the world in one address family.
struct Reach {
    std::optional<DefaultRoute> route;
    std::vector<InterfaceAddress> addresses;  // those that reach beyond the link
    // What connections get as their source; none without an address.
    std::optional<InterfaceAddress> source;

    bool isUsable() const { return route && source; }
    bool has(const std::array<std::uint8_t, 16>& address) const;
    friend bool operator==(const Reach&, const Reach&) = default;
};

// Addresses, each with its family, that lie on an uplink's interface but are a tunnel's.
using TunnelAddresses = std::set<std::pair<int, std::array<std::uint8_t, 16>>>;

struct Uplink {
    unsigned number = 0;
    int interfaceIndex = 0;
    std::string name;
    Reach ipv4;
    Reach ipv6;

    const Reach& reach(int family) const;
    friend bool operator==(const Uplink&, const Uplink&) = default;
};

class Uplinks {
public:
    // Gives a number to each physical interface that leads out and has none, and takes back those of
    // interfaces that are gone. False if there are more than there are numbers for.
    // An uplink's addresses are those of its interface without the tunnels', unless it has no others.
    bool follow(const NetworkState& network, const TunnelAddresses& ofTunnels = {});

    const std::vector<Uplink>& all() const { return uplinks; }

private:
    unsigned freeNumber() const;

    std::vector<Uplink> uplinks;
};

}  // namespace platform::steering
