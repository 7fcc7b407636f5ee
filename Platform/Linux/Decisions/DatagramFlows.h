// The flows of each datagram socket that have been decided, as the kernel's table of connections outlives the
// socket: for half a minute and more the next socket on the port would be taken for it. So a flow
// is entered here before its verdict counts, and what is entered is forgotten everywhere when its socket is closed.
//
// socket is       | a verdict on its flow        | the verdict has reached  | its close is heard of
//                 | is found                     | the kernel               |
// ----------------+------------------------------+--------------------------+------------------------
// open            | entered, and counts          | -                        | its flows are ended
// closed, heard   | not entered: counts for this | the flow is ended: its   | -
//                 | packet alone                 | entry came after the     |
//                 |                              | close                    |
//
// Any thread; bounded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Attribution/FlowTuple.h"

namespace platform::interception {

class DatagramFlows {
public:
    // What there is to end of a closed socket.
    struct Ended {
        std::vector<FlowTuple> flows;
        // It had more flows than are kept: all that have its port are meant.
        bool hasMore = false;
    };

    // False if the verdict counts for this packet alone: the socket is closed, or there is no room.
    bool enter(std::uint64_t cookie, const FlowTuple& flow);

    // The socket is closed. None if it has no flows here.
    std::optional<Ended> end(std::uint64_t cookie);
    // Any socket may be closed: all are to be ended.
    std::vector<Ended> endAll();
    // Whether what a verdict on the socket's flow has left in the kernel is to be ended.
    bool isEnded(std::uint64_t cookie);

private:
    static constexpr std::size_t mostSockets = 65536;
    static constexpr std::size_t mostFlowsOfSocket = 64;

    // Packets of a closed socket wait for a few seconds at most.
    static constexpr std::size_t closedSockets = 8192;

    bool isClosed(std::uint64_t cookie) const REQUIRES(lock) {
        return closed.contains(cookie) || closedBefore.contains(cookie);
    }
    void noteClosed(std::uint64_t cookie) REQUIRES(lock);

    Mutex lock;
    std::unordered_set<std::uint64_t> closed GUARDED_BY(lock);
    std::unordered_set<std::uint64_t> closedBefore GUARDED_BY(lock);
    std::unordered_map<std::uint64_t, Ended> sockets GUARDED_BY(lock);
};

}  // namespace platform::interception
