// Keeps the source address of claimed flows alive. A flow that began while a tunnel was up has the
// tunnel's address on the application's side; when the tunnel goes, the kernel would no longer
// deliver to it. From the moment when such an address vanishes it stands on the loopback interface,
// for as long as claims with it live or until it is back, with a short lifetime that is renewed, so
// that it goes by itself whatever becomes of this process. While the tunnel stands nothing is put
// anywhere: programs take an address that comes and goes for a change of the network. Any thread may
// count claims; addresses are put and taken on the network monitor's thread and on that of `renew`.
#pragma once

#include <cstdint>
#include <memory>

#include "Platform/Linux/Attribution/FlowOwner.h"
#include "Platform/Linux/Network/NetworkMonitor.h"

namespace platform::interception {

class AddressAliases {
public:
    AddressAliases();
    // Aliases that are still in use stay for a moment more: the end of their connections, which may
    // be as late as the end of the process, has to reach the applications. Those whose tunnel still
    // stands need none.
    ~AddressAliases();
    AddressAliases(const AddressAliases&) = delete;
    AddressAliases& operator=(const AddressAliases&) = delete;

    // Keeps the flow's source address while the token lives. Null for a flow that does not leave
    // through a tunnel.
    std::shared_ptr<void> keepSourceOf(const FlowTuple& flow);
    // To be called more often than every `lifetimeSeconds`.
    void renew();

    static constexpr std::uint32_t lifetimeSeconds = 30;
    static constexpr std::uint32_t secondsForFarewell = 3;

private:
    class Table;
    const std::shared_ptr<Table> table;
    NetworkMonitor::Token following;
};

}  // namespace platform::interception
