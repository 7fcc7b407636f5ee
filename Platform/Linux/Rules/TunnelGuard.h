// Keeps the packets of watched flows from leaving beside the tunnel. The daemon hears of a VPN's end
// later than the packets that follow it, so a rule in the kernel drops them: watched connections that
// are about to leave by a physical interface, in each family whose default route leads into a tunnel,
// or has led there. What is near on such an interface stays reachable: its own prefixes, private ones
// beyond a router, single hosts, multicast, broadcast and link-local addresses. In these families nothing
// leaves there with an address that a tunnel has or had, watched or not, but what is carried directly. That is
// looked at after source NAT: other programs have ways of their own beside a tunnel, and masquerade. A connection
// that begins is refused, at once; what is later than that can only be dropped.
//
// event                                     | families that are guarded
// ------------------------------------------+-------------------------------------------------------
// it is wanted; the network changes         | those of before, and each whose default leads there now
// the VPN is down                           | those of before
// it is up again: the next five seconds,    | those of before, and each whose default leads there now
//  in which its routes may come             |
// after them                                | each whose default has led there since it is up
// it is not wanted                          | none
//
// The rules stand in a table that vanishes with the process; once made, it stays until then, empty where nothing
// is guarded. They are made on a thread of its own, which waits for the kernel; any thread may call. What they drop
// the kernel counts, and `status` shows: by `keptInTunnel` since the daemon's start, but for what is dropped in the
// moment of a change of the rules.
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
