// Ends what is known of the flows of datagram sockets that are closed, their entries in the kernel's table
// included: the next program on the port is another one. On a thread and with a socket of its own, as one
// account may close sockets as fast as it likes: neither a verdict nor a change of the rules waits for that.
//
// | a round | |
// |---|---|
// | takes | all sockets that have been closed by now; every socket if the kernel had to leave some out |
// | forgets | their flows, then removes the entries, many in one request |
// | of sockets with more flows than are kept | goes through the kernel's table once, for all of their ports |
//
// `forget` is called on the thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "Platform/Linux/Decisions/DatagramFlows.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Kernel/ClosedSockets.h"
#include "Platform/Linux/Result.h"
#include "Platform/Linux/Rules/ConnectionEntries.h"

namespace platform::interception {

class ClosedFlows {
public:
    using Forget = std::function<void(const FlowTuple&)>;

    // Fails where the kernel does not tell, or gives no way to its table.
    static Result<std::unique_ptr<ClosedFlows>> begin(DatagramFlows& datagrams, Forget forgetFlow);
    // Waits for the round that is under way.
    ~ClosedFlows();
    ClosedFlows(const ClosedFlows&) = delete;
    ClosedFlows& operator=(const ClosedFlows&) = delete;

private:
    struct Round {
        std::vector<FlowTuple> flows;
        std::set<std::uint16_t> ports;  // of sockets with more

        void add(const DatagramFlows::Ended& ended);
    };

    ClosedFlows(std::unique_ptr<ClosedSockets> closedSockets,
                std::unique_ptr<ConnectionEntries> ofTable, DatagramFlows& datagrams,
                Forget forgetFlow);

    void serve();
    Round take();
    void end(const Round& round);

    const std::unique_ptr<ClosedSockets> sockets;
    DatagramFlows& known;
    const Forget forget;
    const std::unique_ptr<ConnectionEntries> entries;
    const FileDescriptor stop;
    std::thread thread;
};

}  // namespace platform::interception
