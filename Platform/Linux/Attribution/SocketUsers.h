// Lets the kernel note which process connects or sends through which socket, at the moment when it
// does: programs of a few instructions at the control groups' hooks, run before a flow's first packet
// exists. With that, the owner of a new flow is known without a search, whatever the process does to
// its descriptors, and also when the socket is closed before its packet is looked at. Needs root, the
// machine's first process namespace and Linux 5.14. The programs and their notes go with this object,
// and with the process at the latest. Any thread.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

#include "Platform/Linux/Attribution/FlowTuple.h"
#include "Platform/Linux/FileDescriptor.h"

namespace platform {

struct SocketUser {
    pid_t pid = 0;
    uid_t uid = 0;             // of the process
    std::uint64_t cookie = 0;  // of the socket
    std::uint64_t time = 0;    // when it was noted, in clock ticks since boot
};

class SocketUsers {
public:
    // Nothing where the kernel or our rights do not allow it.
    static std::unique_ptr<SocketUsers> attach();

    // The process that last connected the socket or sent through it to an address.
    std::optional<SocketUser> userOf(std::uint64_t cookie) const;

    // Of a socket that is gone: the process that last turned to the flow's destination, if that was
    // within the last two seconds and, as far as is known, from the flow's port.
    std::optional<SocketUser> latestUserFor(const FlowTuple& flow) const;

private:
    SocketUsers() = default;

    FileDescriptor bySocket;
    FileDescriptor byDestination;
    std::array<FileDescriptor, 4> attachments;
};

}  // namespace platform
