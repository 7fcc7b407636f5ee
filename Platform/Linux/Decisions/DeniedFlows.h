// The flows that were denied. What of such a flow waits for a verdict still, or comes later, is denied as
// well, without asking: a connection for as long as there is one, datagrams as long as they are of the same
// socket and the rules have not changed since. A plain value by flow in a memory that is bounded; any
// thread.
#pragma once

#include <cstdint>

#include "Platform/Linux/Attribution/RecentMemory.h"
#include "Platform/Linux/Packets/HeldPacket.h"

namespace platform::interception {

struct DeniedFlow {
    std::uint64_t cookie = 0;  // of its socket, 0 if that is not known
    unsigned ruleChanges = 0;  // how many there had been when it was asked about
};

// At least so many are remembered. A connection that is forgotten is still denied by its mark.
class DeniedFlows : public RecentMemory<FlowTuple, DeniedFlow, FlowHash, SameFlow> {
public:
    DeniedFlows() : RecentMemory(8192) {}
};

}  // namespace platform::interception
