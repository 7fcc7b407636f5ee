#include "Platform/Linux/Kernel/SteeringPrograms.h"

#include <bpf/libbpf.h>

#include <SteeredSockets.skel.h>

#include <utility>

#include "Platform/Linux/Kernel/ControlGroupHooks.h"

namespace platform {

Result<std::unique_ptr<SteeringPrograms>> SteeringPrograms::attach() {
    logDetailsOfKernelPrograms();
    const auto ourNetwork = networkNamespace();
    if (!ourNetwork) return Error::last("learn the number of the network namespace");
    auto* opened = steered_sockets::open();
    if (opened == nullptr) return Error::last("open the programs");
    std::unique_ptr<SteeringPrograms> result(new SteeringPrograms(opened));
    opened->rodata->ourNetwork = *ourNetwork;
    if (steered_sockets::load(opened) != 0) return Error::last("load the programs");
    auto events = CookieEvents::open(bpf_map__fd(opened->maps.events), opened->bss->lostEvents);
    if (!events) return events.error();
    result->events = std::move(*events);
    const auto controlGroups = openControlGroups();
    if (!controlGroups) return Error::last("open the root of the control groups");
    if (!attachAll(*opened->skeleton, controlGroups))
        return Error::last("attach the programs to the root of the control groups");
    return result;
}

SteeringPrograms::~SteeringPrograms() {
    events.reset();
    steered_sockets::destroy(programs);
}

KernelTable<std::uint64_t, SteeredSocket> SteeringPrograms::sockets() const {
    return KernelTable<std::uint64_t, SteeredSocket>(bpf_map__fd(programs->maps.sockets));
}

bool SteeringPrograms::follow(std::uint64_t cookie, std::uint32_t attempt, std::uint32_t mark,
                              std::uint32_t mask) const {
    SteeredSocket socket{};
    socket.attempt = attempt;
    socket.mark = mark;
    socket.mask = mask;
    return sockets().put(cookie, socket);
}

std::optional<SteeredSocket> SteeringPrograms::look(std::uint64_t cookie) const {
    return sockets().find(cookie);
}

void SteeringPrograms::forget(std::uint64_t cookie) const { sockets().remove(cookie); }

bool SteeringPrograms::wasOverBefore(std::uint64_t cookie) const {
    // What follows is not read before the socket's entry is there for the programs.
    // Not by the standard's fence, which the thread sanitizer does not know.
    __sync_synchronize();
    const KernelTable<std::uint64_t, std::uint32_t> ended(bpf_map__fd(programs->maps.endedBefore));
    return ended.find(cookie).has_value();
}

}  // namespace platform
