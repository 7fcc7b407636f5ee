// Whether the VPN is up, as the machine's interfaces and routes show it. An interface that has an address
// but no routes yet carries nothing: saying "up" then would let through, beside the VPN, what the
// fallback holds back. So what counts is where the routes lead:
//
//   the interface                       routes lead to it        they lead elsewhere
//   is gone, down, or has no address    -                        down
//   is in use, has led the routes       up                       down: its routes are to come, or gone
//   is in use, never led the routes     up                       up after a while: a tunnel for some
//                                                                networks only
//
// Where no names were given and one that leads the routes is known, such tunnels are not the VPN, also while that
// one is away: a mesh of one's own machines must not stand in for it.
//
// The while is short where the interface of that name was such a tunnel the last time, longer where it led the
// routes then or is new: scripts may stand between a VPN's address and its routes. After a minute without the
// interface it may be another VPN's that has the name, and begins as one in use for the first time. What is known
// outlives the service (`TunnelMemory`). One thread.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Host/vantry-settings/TunnelMemory.h"
#include "Platform/Linux/Network/NetworkState.h"

namespace vantrysettings {

struct TunnelView {
    std::vector<std::string> carrying;  // the interfaces that carry the VPN now; up if there is any
    std::vector<std::string> absent;    // those that were named and are not there
    std::vector<std::string> split;  // for some networks only, not the VPN as a full one is known

    bool isUp() const { return !carrying.empty(); }
    friend bool operator==(const TunnelView&, const TunnelView&) = default;
};

class TunnelState {
public:
    using Clock = std::chrono::steady_clock;
    // Whether traffic for the rest of the world leaves by this interface.
    using LeadsTo = std::function<bool(const platform::NetworkInterface&)>;

    explicit TunnelState(LeadsTo question, const TunnelMemory& memory = {});

    // With `names`, only interfaces of these names count, and they count whatever they are; without, every
    // tunnel does.
    TunnelView look(const platform::NetworkState& state, const std::vector<std::string>& names,
                    Clock::time_point now);
    // What the service's next start is to know.
    TunnelKinds kinds() const;
    // When to look again although nothing has happened.
    std::optional<Clock::time_point> looksAgainAt() const { return nextLook; }

private:
    struct Tunnel {
        void beginAgain();

        std::optional<TunnelKind> before;   // what it was the last time
        std::optional<TunnelKind> present;  // once that is known
        std::optional<Clock::time_point> inUseSince;
        std::optional<Clock::time_point> goneSince;
    };

    bool carries(const platform::NetworkInterface& interface, Clock::time_point now);
    void setSplitAside(TunnelView& view);

    const LeadsTo leadsTo;
    std::map<std::string, Tunnel> tunnels;
    std::optional<Clock::time_point> nextLook;
};

// Asks the kernel's routing, as an ordinary program would be routed; sends nothing.
bool routesLeadTo(const platform::NetworkInterface& interface);

}  // namespace vantrysettings
