// The kernel's own accounts of TCP connections: how many bytes went each way. Any thread; each call asks
// the kernel.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "Platform/Linux/Attribution/FlowTuple.h"

namespace platform {

struct SocketAccount {
    FlowTuple flow;            // as its first packet showed it
    std::uint64_t cookie = 0;  // the kernel's number for the socket, never used twice
    std::uint32_t inode = 0;
    std::uint64_t bytesSent = 0;  // those that the peer has acknowledged
    std::uint64_t bytesReceived = 0;
    std::uint32_t millisecondsIdle = 0;  // since data last came or went
};

// The machine's connections that are open or opening, but those to itself. No value where the kernel
// doesn't tell.
std::optional<std::vector<SocketAccount>> connectedSockets();

}  // namespace platform
