// Keeps the packets of watched flows from leaving beside the tunnel. The daemon hears of a VPN's end
// later than the packets that follow it, so a rule in the kernel drops them: watched connections that
// are about to leave by a physical interface, in each family whose default route has led into a
// tunnel since the guard was wanted. What is near on such an interface stays reachable: its own
// prefixes, private ones beyond a router, single hosts, multicast, broadcast and link-local addresses.
// The rules stand in a table that vanishes with the process. They are made on a thread of its own,
// which waits for the kernel; any thread may call.
#pragma once

#include <memory>

#include "Platform/Linux/Network/NetworkMonitor.h"
#include "Platform/Linux/Rules/FlowMark.h"

namespace platform::interception {

class TunnelGuard {
public:
    explicit TunnelGuard(MarkPlace place);
    // Takes the rules away.
    ~TunnelGuard();
    TunnelGuard(const TunnelGuard&) = delete;
    TunnelGuard& operator=(const TunnelGuard&) = delete;

private:
    class Work;
    const std::shared_ptr<Work> work;
    NetworkMonitor::Token following;
};

}  // namespace platform::interception
