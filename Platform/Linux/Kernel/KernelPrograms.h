// Loads the programs that note who uses which socket (SocketNotes.bpf.c) into the kernel and attaches them at the root of the control groups,
// where they see what every process of the machine does with its sockets. The programs and their tables go with
// this object, and with the process at the latest. Needs CAP_BPF, CAP_PERFMON and CAP_NET_ADMIN, the
// machine's first process namespace, a kernel with a description of its types and Linux 5.14. Any
// thread.
#pragma once

#include <cstdint>
#include <memory>

#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Kernel/KernelTable.h"
#include "Platform/Linux/Kernel/SocketNotes.h"

struct socket_notes;

namespace platform {

class KernelPrograms {
public:
    // Null where the kernel or our rights do not allow it, with errno set and the step that failed
    // in `failedStep`, to be said as "cannot ...".
    static std::unique_ptr<KernelPrograms> attach(const char*& failedStep);
    ~KernelPrograms();
    KernelPrograms(const KernelPrograms&) = delete;
    KernelPrograms& operator=(const KernelPrograms&) = delete;

    // Filled by SocketNotes.bpf.c; see there and in SocketNotes.h.
    KernelTable<std::uint64_t, KernelNote> notes() const;         // by the socket's cookie
    KernelTable<std::uint32_t, KernelNote> ports() const;         // of datagrams, by the local port
    KernelTable<KernelTuple, std::uint64_t> connections() const;  // a socket's cookie
    KernelTable<KernelTuple, KernelNote> abandoned() const;
    KernelTable<KernelTuple, std::uint64_t> sendings() const;  // a socket's cookie
    KernelTable<KernelFile, KernelPath> paths() const;
    KernelTable<std::uint64_t, KernelGroup> groups() const;  // by the control group's id

private:
    explicit KernelPrograms(socket_notes* toOwn) : programs(toOwn) {}

    socket_notes* const programs;
};

}  // namespace platform
