// What an earlier process, which was killed, has left steered: its connections go on, as their marks and
// the rules for them outlive it. They are ended when the next process starts, as the applications' rules
// may have changed meanwhile. One thread.
#pragma once

#include <set>

#include "Platform/Linux/Rules/ConnectionEntries.h"
#include "Platform/Linux/Steering/SteeringRoutes.h"

namespace platform::steering {

// Ends the sockets that bear one of these marks, and those of connections whose entries say that they
// are steered.
void endEarlierConnections(const std::set<SteeringRoutes::MarkTest>& marks,
                           interception::ConnectionEntries& entries);

}  // namespace platform::steering
