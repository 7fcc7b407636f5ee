// Which packets are a tunnel's own: those that the VPN's program sends, the process that holds the tunnel's device,
// and those that the kernel's own tunnels send (WireGuard), by a socket that is no process's. They carry what others
// sent, and no rule concerns them. Only root sees whose sockets there are. Any thread.
#pragma once

#include "Platform/Linux/Attribution/FlowTuple.h"

namespace vantryctl {

// Whether a packet with these ends is such a one, by the sockets that there are now.
bool isTunnelsOwn(const platform::FlowTuple& flow);

}  // namespace vantryctl
