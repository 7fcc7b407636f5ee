// Which program connects or sends through which socket, as the kernel notes it at the moment when
// that is done (Kernel/SocketNotes.bpf.c), before a flow's first packet exists. With that, the owner
// of a new flow is known without a search, whatever the process does to its descriptors, and also when
// the socket is closed and the process gone before its packet is looked at. Any thread; each question
// is a system call that never waits.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Platform/Linux/Attribution/FlowTuple.h"
#include "Platform/Linux/Kernel/KernelPrograms.h"

namespace platform {

class SocketNotes {
public:
    // Null where the kernel or our rights do not allow it, which is logged.
    static std::unique_ptr<SocketNotes> attach();

    // Of the open socket that the flow comes from, as far as that can be told without asking which
    // one it is.
    std::optional<KernelNote> ofOpenSocket(const FlowTuple& flow) const;

    std::optional<KernelNote> ofSocket(std::uint64_t cookie) const;

    // Of a socket that no one finds by the flow: it was closed a moment ago, before its connection was
    // there, or a datagram's packets take a route of their own.
    std::optional<KernelNote> ofLostSocket(const FlowTuple& flow) const;

    // The path of an executable that a note names, in bytes. None if it is longer than what is noted.
    std::optional<std::string> pathOf(const KernelFile& executable) const;

    // The end of a control group's path, as /proc shows it. Empty for the root.
    std::string controlGroupPath(std::uint64_t id) const;

    // Removes what is noted of datagrams' sockets that were closed some seconds ago.
    void forgetClosed() const;

private:
    explicit SocketNotes(std::unique_ptr<KernelPrograms> attached)
        : programs(std::move(attached)) {}
    std::optional<KernelNote> ofEarlierSender(const FlowTuple& flow) const;

    const std::unique_ptr<KernelPrograms> programs;
};

}  // namespace platform
