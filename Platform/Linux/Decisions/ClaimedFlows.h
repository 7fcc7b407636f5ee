// Takes over the connections of claimed flows. The rules redirect them to listeners on the loopback
// addresses; each accepted socket finds the claim that waits for it by its application's address
// and port and by the destination that it wanted, and becomes that flow's socket. Any other one is
// somebody who found the port, and is reset, as is one whose destination the kernel has
// forgotten, which is said. Any thread may call; accepting happens on the event loops.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>

#include "Platform/Linux/Attribution/FlowOwner.h"
#include "Platform/Linux/Decisions/Seldom.h"
#include "Platform/Linux/Relay/ConnectionAcceptor.h"
#include "Platform/Linux/Rules/PacketTable.h"

namespace platform {

class SocketFlow;

}  // namespace platform

namespace platform::interception {

class ClaimedFlows {
public:
    using Flow = std::shared_ptr<SocketFlow>;

    // Opens the listeners. A family that has none cannot be claimed.
    ClaimedFlows();
    // Stops accepting; claims that still wait fail.
    ~ClaimedFlows();
    ClaimedFlows(const ClaimedFlows&) = delete;
    ClaimedFlows& operator=(const ClaimedFlows&) = delete;

    ListenerPorts ports() const { return listenerPorts; }
    // False if flows of the family could not be served: no listener, or hardly a descriptor left.
    bool canClaim(int family);

    // From now on the application's connection is awaited, for a bounded time.
    void expect(const FlowTuple& flow, Flow claimed);
    // Fails the claims whose connection has not come in time.
    void failOverdue();

    // For as long as the token lives a flow counts as one whose application has not been told its end.
    std::shared_ptr<void> countAsOpen();
    // Waits until there is none, or for so long.
    void awaitEnds(std::chrono::milliseconds longest);

private:
    class Awaited;
    class OpenFlows;

    std::atomic<bool> hadDescriptors{false};
    std::atomic<unsigned> claimsSinceLook{0};
    Seldom shortages;
    std::shared_ptr<Awaited> awaited;
    std::shared_ptr<OpenFlows> openFlows;
    std::unique_ptr<ConnectionAcceptor> ipv4;
    std::unique_ptr<ConnectionAcceptor> ipv6;
    ListenerPorts listenerPorts;
};

}  // namespace platform::interception
