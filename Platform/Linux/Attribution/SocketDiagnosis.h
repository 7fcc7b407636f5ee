// Asks the kernel which socket a flow belongs to, over one netlink socket. One thread at a time; a
// question takes a few microseconds and no longer when there are more sockets.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "Platform/Linux/Attribution/FlowTuple.h"
#include "Platform/Linux/Netlink/Socket.h"

namespace platform {

struct SocketFacts {
    std::uint64_t cookie = 0;
    std::uint32_t inode = 0;  // 0: no process holds the socket any more
    uid_t uid = 0;            // of who made it, as seen in our user namespace
    bool isBoundToDevice = false;
    bool hasPeer = false;  // false for a UDP socket that is not connected
};

class SocketDiagnosis {
public:
    SocketDiagnosis();

    // False where no descriptor was to be had: it answers nothing.
    bool isOpen() const { return socket.has_value(); }

    // Null if there is no such socket.
    std::optional<SocketFacts> find(const FlowTuple& flow);

    // Ends the flow's socket if it still is the one with this cookie. False if that failed.
    bool destroy(const FlowTuple& flow, std::uint64_t cookie);

private:
    std::optional<netlink::Socket> socket;
};

}  // namespace platform
