// Loads the programs that follow the sockets of steered connections (SteeredSockets.bpf.c) into the kernel
// and attaches them at the root of the control groups. The programs and their tables go with this
// object, and with the process at the latest. Needs CAP_BPF, CAP_PERFMON and CAP_NET_ADMIN, a kernel with
// a description of its types, and Linux 5.14. Any thread may follow, look and forget; one takes events.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "Platform/Linux/Kernel/CookieEvents.h"
#include "Platform/Linux/Kernel/KernelTable.h"
#include "Platform/Linux/Kernel/SteeredSockets.h"
#include "Platform/Linux/Result.h"

struct steered_sockets;

namespace platform {

class SteeringPrograms {
public:
    static Result<std::unique_ptr<SteeringPrograms>> attach();
    ~SteeringPrograms();
    SteeringPrograms(const SteeringPrograms&) = delete;
    SteeringPrograms& operator=(const SteeringPrograms&) = delete;

    // From now on there are events of the socket, which gets the mark when it is established. False if
    // there is no room for another one. `attempt` tells a later attempt of the same socket to connect.
    bool follow(std::uint64_t cookie, std::uint32_t attempt, std::uint32_t mark,
                std::uint32_t mask) const;
    std::optional<SteeredSocket> look(std::uint64_t cookie) const;
    void forget(std::uint64_t cookie) const;
    // Whether the attempt to connect was over already when the socket came to be followed: no event tells of that.
    bool wasOverBefore(std::uint64_t cookie) const;

    // Readable when there are events.
    int eventDescriptor() const { return events->descriptor(); }
    // Shows the cookies of the sockets to look at. False if there were more events than there was room
    // for: then any socket may have changed.
    bool takeEvents(const std::function<void(std::uint64_t cookie)>& show) {
        return events->take(show);
    }

private:
    explicit SteeringPrograms(steered_sockets* toOwn) : programs(toOwn) {}

    KernelTable<std::uint64_t, SteeredSocket> sockets() const;

    steered_sockets* const programs;
    std::unique_ptr<CookieEvents> events;
};

}  // namespace platform
