// The flows that `verify` makes by itself, by each route, and the interfaces by which they really left. For each
// route a small program runs under a rule of its own and sends a datagram and the first packet of a connection to
// some destination; no answer is needed. What was to leave and what did are compared. One thread.
#pragma once

#include <csignal>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "Host/vantryctl/Departures.h"
#include "Host/vantryctl/Destination.h"
#include "Host/vantryctl/PacketWatch.h"
#include "Host/vantryctl/RuledCommand.h"

namespace vantryctl {

struct OwnFlow {
    enum class Finding { right, wrong, notTried };

    Way way = Way::direct;
    bool isDatagram = false;
    Destination to;
    std::set<std::string> interfaces;  // by which it left
    Finding finding = Finding::notTried;
    std::string reason;  // what it was to do instead, or why it was not tried
};

// Addresses that are for examples only, so that they are no one's, of each family that has a route.
std::vector<Destination> harmlessDestinations();

// Makes the flows, for a few seconds. `other` is given what others send meanwhile.
std::vector<OwnFlow> makeOwnFlows(PacketWatch& packets, const Departures& departures,
                                  const std::vector<Destination>& destinations,
                                  const volatile std::sig_atomic_t& isOver,
                                  const std::function<void(Left)>& other);

// The program that runs under the rules: sends to each HOST and PORT, then waits for its end, or ends
// once every connection was refused.
ExitCode knock(const std::vector<std::string>& hostsAndPorts);

}  // namespace vantryctl
