// An outbound packet that the kernel holds until we say what becomes of it, as far as verdicts need
// it: whose flow, where in its stream, how many bytes. Plain values; any thread.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>

#include "Platform/Linux/Attribution/FlowOwner.h"

namespace platform::interception {

// Why a packet was handed to us.
enum class PacketPurpose : std::uint8_t { newFlow, watchedData, offeredAgain };

struct HeldPacket {
    static constexpr std::uint32_t noAccount = ~0u;
    PacketPurpose purpose = PacketPurpose::newFlow;
    std::uint16_t queueNumber = 0;
    std::uint32_t id = 0;               // the kernel's number for it within its queue
    std::uint32_t priority = 0;         // the packet's own
    std::uint32_t account = noAccount;  // that the socket was made under
    FlowTuple flow;
    // Where it goes in the end, if its header names the first stop on a way that its sender prescribes.
    std::optional<std::array<std::uint8_t, 16>> finalDestination;
    bool meetsEntry = true;         // of a SYN: the kernel's table has a connection that it fits
    bool isOfClaimed = false;       // its connection is claimed
    bool opensTcp = false;          // a SYN
    std::uint32_t tcpSequence = 0;  // of the first byte; of the SYN itself on a SYN
    std::size_t payloadLength = 0;  // true length, however little of the packet was copied to us

    // The flow as its socket knows it; to the kernel's table of connections it is `flow`.
    FlowTuple asSent() const;
};

// Fills what the headers of an IP packet tell. `packet` may be cut short after the transport
// header, `trueLength` is what it was. False if it is not TCP or UDP, not the first of its fragments, or
// cannot be read.
bool readHeaders(std::span<const std::uint8_t> packet, std::size_t trueLength, HeldPacket& into);

// Flows are told apart by their protocol, addresses and ports; the interface may change under them.
struct SameFlow {
    bool operator()(const FlowTuple& left, const FlowTuple& right) const;
};
struct FlowHash {
    std::size_t operator()(const FlowTuple& flow) const;
};

}  // namespace platform::interception
