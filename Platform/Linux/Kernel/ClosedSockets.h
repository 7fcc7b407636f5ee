// Loads the program that tells of datagram sockets that are closed (ClosedSockets.bpf.c) into the kernel and
// attaches it at the root of the control groups. It goes with this object, and with the process at the
// latest. Needs CAP_BPF and CAP_NET_ADMIN, and Linux 5.14. One thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "Platform/Linux/Kernel/CookieEvents.h"
#include "Platform/Linux/Result.h"

struct closed_sockets;

namespace platform {

class ClosedSockets {
public:
    static Result<std::unique_ptr<ClosedSockets>> attach();
    ~ClosedSockets();
    ClosedSockets(const ClosedSockets&) = delete;
    ClosedSockets& operator=(const ClosedSockets&) = delete;

    // Readable when sockets have been closed.
    int eventDescriptor() const { return events->descriptor(); }
    // Shows their cookies. False if there were more than there was room for.
    bool take(const std::function<void(std::uint64_t cookie)>& show) { return events->take(show); }

private:
    explicit ClosedSockets(closed_sockets* toOwn) : program(toOwn) {}

    closed_sockets* const program;
    std::unique_ptr<CookieEvents> events;
};

}  // namespace platform
