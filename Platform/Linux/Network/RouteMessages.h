// The kernel's account of interfaces, addresses and routes, over rtnetlink. Used by the network
// monitor alone, on the thread that serves it.
#pragma once

#include <optional>

#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Network/NetworkState.h"

namespace platform {

// The network as it is now: links with their kinds, addresses, default routes of the main table.
// Nothing if the kernel did not answer.
std::optional<NetworkState> readNetworkState();

// A non-blocking socket that becomes readable whenever one of these changes. None on failure.
FileDescriptor openChangeReports();
// Throws away what has been reported.
void discardReports(const FileDescriptor& reports);

}  // namespace platform
