// Finds out by trying how this kernel takes a verdict to a connection's mark: some can't do it at all,
// some take it without a word and don't do it. A datagram of our own on the loopback interface is queued, gets
// a verdict in each of the ways, and its connection's mark is read back.
#pragma once

#include "Platform/Linux/Packets/PacketQueue.h"
#include "Platform/Linux/Result.h"
#include "Platform/Linux/Rules/ConnectionEntries.h"
#include "Platform/Linux/Rules/FlowMark.h"
#include "Platform/Linux/Rules/PacketTable.h"

namespace platform::interception {

// Needs a queue that no one reads yet. What is in the table then has to be installed again. Fails with
// EOPNOTSUPP where no way works, else with what stopped the trial.
Result<VerdictCarrier> probeVerdicts(PacketTable& table, PacketQueue& queue,
                                     ConnectionEntries& entries, MarkPlace place);

}  // namespace platform::interception
