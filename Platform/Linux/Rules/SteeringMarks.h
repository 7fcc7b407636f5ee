// What the byte of ours in a mark says of a steered connection. A steered connection is a claimed one
// whose bits for a generation hold the number of the interface by which it leaves:
//
//     connection's mark   claimed (also if watched) + interface, + a flag: held back
//     packet's mark       claimed + interface: routed by the interface's own table
//     socket's mark       the same + a flag: routed towards the tunnel, as far as firewalls can see,
//                         but with the interface's address; the late chain makes the packet's mark of it
//
// Number 0 is a connection that is relayed. Pure values; any thread.
#pragma once

#include <cstdint>

#include "Platform/Linux/Rules/FlowMark.h"

namespace platform::steering {

using interception::FlowState;
using interception::MarkPlace;

// The numbers of interfaces are 1 to this one.
inline constexpr unsigned mostUplinks = 14;
// Stands for "no way in this address family": the packet is answered by an error.
inline constexpr unsigned unreachableNumber = 15;

// The numbers of our routing tables; no others of the machine's should be among them.
inline constexpr std::uint32_t firstTable = 7680;
inline constexpr std::uint32_t tableCount = 32;
constexpr bool isTableOfSteering(std::uint32_t table) {
    return table >= firstTable && table - firstTable < tableCount;
}

class SteeringMarks {
public:
    explicit constexpr SteeringMarks(MarkPlace markPlace) : place_(markPlace) {}

    constexpr std::uint32_t mask() const { return place_.mask(); }
    // The byte without the flag.
    constexpr std::uint32_t numberMask() const { return place_.mask() & ~flag(); }
    // In a connection's mark "held back", in a socket's "towards the tunnel".
    constexpr std::uint32_t flag() const { return place_.value(FlowState::unseen, flagBit); }

    constexpr std::uint32_t ofConnection(FlowState claimed, unsigned number) const {
        return place_.value(claimed, number);
    }
    constexpr std::uint32_t ofPacket(unsigned number) const {
        return place_.value(FlowState::claimed, number);
    }
    constexpr std::uint32_t ofSocket(unsigned number) const { return ofPacket(number) | flag(); }

    constexpr MarkPlace place() const { return place_; }

private:
    static constexpr unsigned flagBit = 16;

    MarkPlace place_;
};

}  // namespace platform::steering
