// Sees what leaves the machine: the first packet of each TCP connection and UDP flow, and by which interface.
// Only root may. One thread.
#pragma once

#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>

#include "Host/vantryctl/Outcome.h"
#include "Platform/Linux/Attribution/FlowTuple.h"
#include "Platform/Linux/FileDescriptor.h"

namespace vantryctl {

struct DepartingFlow {
    platform::FlowTuple flow;
    std::string interface;
};

class PacketWatch {
public:
    static Outcome<PacketWatch> open();

    // Shows each new flow as it leaves, for that long, or until a signal has set `isOver`.
    void watch(std::chrono::milliseconds time, const volatile std::sig_atomic_t& isOver,
               const std::function<void(const DepartingFlow&)>& visit);
    // Packets that came faster than they could be looked at.
    std::uint32_t missed() const;

private:
    explicit PacketWatch(platform::FileDescriptor opened) : socket(std::move(opened)) {}
    void read(const std::function<void(const DepartingFlow&)>& visit);

    platform::FileDescriptor socket;
    std::set<std::string> seen;
};

// The flow that a packet begins, or belongs to if it is a datagram; no value for any other packet and for
// one that is cut short.
std::optional<platform::FlowTuple> flowInPacket(std::span<const std::uint8_t> packet);

}  // namespace vantryctl
