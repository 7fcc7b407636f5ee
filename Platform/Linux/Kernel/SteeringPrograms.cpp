#include "Platform/Linux/Kernel/SteeringPrograms.h"

#include <bpf/libbpf.h>

#include <SteeredSockets.skel.h>
#include <cerrno>
#include <cstring>
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
    result->ring =
        ring_buffer__new(bpf_map__fd(opened->maps.events), showEvent, result.get(), nullptr);
    if (result->ring == nullptr) return Error::last("open the programs' events");
    const auto controlGroups = openControlGroups();
    if (!controlGroups) return Error::last("open the root of the control groups");
    if (!attachAll(*opened->skeleton, controlGroups))
        return Error::last("attach the programs to the root of the control groups");
    return result;
}

SteeringPrograms::~SteeringPrograms() {
    const int error = errno;
    ring_buffer__free(ring);
    steered_sockets::destroy(programs);
    errno = error;
}

KernelTable<std::uint64_t, SteeredSocket> SteeringPrograms::sockets() const {
    return KernelTable<std::uint64_t, SteeredSocket>(bpf_map__fd(programs->maps.sockets));
}

bool SteeringPrograms::follow(std::uint64_t cookie, std::uint32_t mark, std::uint32_t mask) const {
    SteeredSocket socket{};
    socket.mark = mark;
    socket.mask = mask;
    return sockets().put(cookie, socket);
}

std::optional<SteeredSocket> SteeringPrograms::look(std::uint64_t cookie) const {
    return sockets().find(cookie);
}

void SteeringPrograms::forget(std::uint64_t cookie) const { sockets().remove(cookie); }

int SteeringPrograms::eventDescriptor() const { return ring_buffer__epoll_fd(ring); }

int SteeringPrograms::showEvent(void* context, void* data, std::size_t size) {
    std::uint64_t cookie = 0;
    if (size == sizeof cookie) {
        std::memcpy(&cookie, data, sizeof cookie);
        (*static_cast<SteeringPrograms*>(context)->shown)(cookie);
    }
    return 0;
}

bool SteeringPrograms::takeEvents(const std::function<void(std::uint64_t)>& show) {
    // Read before the events: what is lost from here on is noticed next time.
    const std::uint64_t lost = __atomic_load_n(&programs->bss->lostEvents, __ATOMIC_RELAXED);
    shown = &show;
    ring_buffer__consume(ring);
    return std::exchange(lostBefore, lost) == lost;
}

}  // namespace platform
