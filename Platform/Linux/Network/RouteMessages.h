// The kernel's account of interfaces, addresses and routes, over rtnetlink. Used by the network
// monitor alone, on the thread that serves it.
#pragma once

#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/Network/NetworkState.h"
#include "Platform/Linux/Result.h"

namespace platform {

// The network as it is now: links with their kinds, addresses, default routes of the main table.
// Fails if the kernel did not answer.
Result<NetworkState> readNetworkState();

// A socket that becomes readable whenever one of these changes.
Result<netlink::Socket> openChangeReports();

// Adds to `network` what one answer tells: a link (RTM_NEWLINK), an address (RTM_NEWADDR), a route
// (RTM_NEWROUTE). One that is too short, or is about something unknown, adds nothing.
void addToNetwork(const netlink::Message& answer, NetworkState& network);

}  // namespace platform
