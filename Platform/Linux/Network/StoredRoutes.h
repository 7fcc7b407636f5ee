// The machine's default routes, kept in a file over the daemon's restarts. A daemon that starts when a
// VPN has already replaced the default route could not learn the gateway from the kernel, and its
// direct flows would have no way out until the VPN goes. The file does not outlive a boot.
#pragma once

#include "Platform/Linux/Network/NetworkMonitor.h"

namespace platform {

// The routes that an earlier daemon has stored: interfaces of which only the index and the routes are
// known. None where there is no file that can be trusted.
NetworkState readStoredRoutes();

// Stores the routes of physical interfaces, now and after each change, for as long as it lives. The
// daemon has one; its file is written on the thread that tells of the change.
class StoredRoutes {
public:
    StoredRoutes();

private:
    class File;
    NetworkMonitor::Token following;
};

}  // namespace platform
