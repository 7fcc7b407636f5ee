// IPsec by policies, as most clients of IKEv2 have it, chooses after the routing: what is routed to the
// uplink still goes into the tunnel where a policy selects it. Policies of ours, before all others and for
// the marks of steered packets alone, have them leave, and their answers arrive, as they are. The kernel
// looks up no policy for any packet while there is none, so ours are there only beside those of others:
//
//     others have   ours
//     none          none
//     some          for each uplink, family and direction (out, in): "allow"
//
// Like the routes they stay when the process dies. One thread.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <vector>

#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/Network/NetworkState.h"
#include "Platform/Linux/Result.h"
#include "Platform/Linux/Rules/SteeringMarks.h"
#include "Platform/Linux/Steering/Uplinks.h"

namespace platform::steering {

class IpsecPolicies {
public:
    explicit IpsecPolicies(SteeringMarks marks);
    ~IpsecPolicies() { takeAway(); }
    IpsecPolicies(const IpsecPolicies&) = delete;
    IpsecPolicies& operator=(const IpsecPolicies&) = delete;

    // Becomes readable when somebody changes policies; -1 for a kernel without IPsec.
    int eventDescriptor() const { return events ? events->descriptor() : -1; }
    void discardEvents() {
        if (events) events->discard();
    }

    // Reads what there is now.
    Result<> look();
    // The addresses that stand for tunnels though they lie on an uplink, as seen by the last look.
    const TunnelAddresses& tunnelAddresses() const { return ofTunnels; }
    // Puts in force what these uplinks need, after a look.
    Result<> exempt(const std::vector<Uplink>& uplinks);
    // Takes ours away, once: the next ones may be another's.
    void takeAway();

private:
    struct Exemption {
        std::uint16_t family;
        std::uint8_t direction;
        std::uint32_t mark;
        std::uint32_t mask;
        auto operator<=>(const Exemption&) const = default;
    };

    void take(const netlink::Message& answer);
    std::set<Exemption> wantedFor(const std::vector<Uplink>& uplinks) const;
    Result<> add(const Exemption& exemption);
    Result<> remove(const Exemption& exemption);

    const SteeringMarks marks;
    std::optional<netlink::Socket> socket;
    std::optional<netlink::Socket> events;
    std::set<Exemption> ours;
    bool haveOthers = false;
    TunnelAddresses ofTunnels;
    bool isTakenAway = false;
};

}  // namespace platform::steering
