// Which process connects or sends through which socket, as the kernel notes it at the moment when
// that is done (Kernel/SocketNotes.bpf.c), before a flow's first packet exists. With that, the owner
// of a new flow is known without a search, whatever the process does to its descriptors, and also when
// the socket is closed before its packet is looked at. Any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "Platform/Linux/Attribution/FlowTuple.h"
#include "Platform/Linux/Kernel/KernelPrograms.h"

namespace platform {

struct SocketUser {
    pid_t pid = 0;
    uid_t uid = 0;             // of the process
    std::uint64_t cookie = 0;  // of the socket
    std::uint64_t time = 0;    // when it was noted, in clock ticks since boot
};

class SocketUsers {
public:
    // Null where the kernel or our rights do not allow it, which is logged.
    static std::unique_ptr<SocketUsers> attach();

    // The process that last connected the socket or sent through it to an address.
    std::optional<SocketUser> userOf(std::uint64_t cookie) const;

    // Of a socket that is gone: the process that last sent a datagram from the flow's port, if that
    // was to the flow's destination and the socket was closed within the last seconds.
    std::optional<SocketUser> latestUserFor(const FlowTuple& flow) const;

private:
    explicit SocketUsers(std::unique_ptr<KernelPrograms> attached)
        : programs(std::move(attached)) {}

    const std::unique_ptr<KernelPrograms> programs;
};

}  // namespace platform
