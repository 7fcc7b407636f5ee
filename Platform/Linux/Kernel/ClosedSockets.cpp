#include "Platform/Linux/Kernel/ClosedSockets.h"

#include <bpf/libbpf.h>

#include <ClosedSockets.skel.h>

#include <utility>

#include "Platform/Linux/Kernel/ControlGroupHooks.h"

namespace platform {

Result<std::unique_ptr<ClosedSockets>> ClosedSockets::attach() {
    logDetailsOfKernelPrograms();
    const auto ourNetwork = networkNamespace();
    if (!ourNetwork) return Error::last("learn the number of the network namespace");
    auto* opened = closed_sockets::open();
    if (opened == nullptr) return Error::last("open the program");
    std::unique_ptr<ClosedSockets> result(new ClosedSockets(opened));
    opened->rodata->ourNetwork = *ourNetwork;
    if (closed_sockets::load(opened) != 0) return Error::last("load the program");
    auto events = CookieEvents::open(bpf_map__fd(opened->maps.events), opened->bss->lostEvents);
    if (!events) return events.error();
    result->events = std::move(*events);
    const auto controlGroups = openControlGroups();
    if (!controlGroups) return Error::last("open the root of the control groups");
    if (!attachAll(*opened->skeleton, controlGroups))
        return Error::last("attach the program to the root of the control groups");
    return result;
}

ClosedSockets::~ClosedSockets() {
    events.reset();
    closed_sockets::destroy(program);
}

}  // namespace platform
