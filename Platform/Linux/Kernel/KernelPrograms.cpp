#include "Platform/Linux/Kernel/KernelPrograms.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <sys/stat.h>

#include <SocketNotes.skel.h>
#include <cerrno>

#include "Platform/Linux/Kernel/ControlGroupHooks.h"

namespace platform {

namespace {

// For a program's process ids to mean anything here, they have to be counted as the kernel does.
bool seesAllProcesses() {
    constexpr ino_t inodeOfFirst = 0xEFFFFFFC;
    struct stat status {};
    return ::stat("/proc/self/ns/pid", &status) == 0 && status.st_ino == inodeOfFirst;
}

}  // namespace

std::unique_ptr<KernelPrograms> KernelPrograms::attach(const char*& failedStep) {
    logDetailsOfKernelPrograms();
    failedStep = "learn the number of the network namespace";
    const auto ourNetwork = networkNamespace();
    if (!ourNetwork) return nullptr;
    failedStep = "see all processes of the machine";
    errno = EPERM;
    if (!seesAllProcesses()) return nullptr;
    failedStep = "open the programs";
    auto* opened = socket_notes::open();
    if (opened == nullptr) return nullptr;
    std::unique_ptr<KernelPrograms> result(new KernelPrograms(opened));
    opened->rodata->ourNetwork = *ourNetwork;
    failedStep = "load the programs";
    if (socket_notes::load(opened) != 0) return nullptr;
    failedStep = "open the root of the control groups";
    const auto controlGroups = openControlGroups();
    if (!controlGroups) return nullptr;
    failedStep = "attach the programs to the root of the control groups";
    if (!attachAll(*opened->skeleton, controlGroups)) return nullptr;
    return result;
}

KernelPrograms::~KernelPrograms() {
    const int error = errno;
    socket_notes::destroy(programs);
    errno = error;
}

KernelTable<std::uint64_t, KernelNote> KernelPrograms::notes() const {
    return KernelTable<std::uint64_t, KernelNote>(bpf_map__fd(programs->maps.notes));
}
KernelTable<std::uint32_t, KernelNote> KernelPrograms::ports() const {
    return KernelTable<std::uint32_t, KernelNote>(bpf_map__fd(programs->maps.ports));
}
KernelTable<KernelTuple, std::uint64_t> KernelPrograms::connections() const {
    return KernelTable<KernelTuple, std::uint64_t>(bpf_map__fd(programs->maps.connections));
}
KernelTable<KernelTuple, KernelNote> KernelPrograms::abandoned() const {
    return KernelTable<KernelTuple, KernelNote>(bpf_map__fd(programs->maps.abandoned));
}
KernelTable<KernelTuple, std::uint64_t> KernelPrograms::sendings() const {
    return KernelTable<KernelTuple, std::uint64_t>(bpf_map__fd(programs->maps.sendings));
}
KernelTable<KernelFile, KernelPath> KernelPrograms::paths() const {
    return KernelTable<KernelFile, KernelPath>(bpf_map__fd(programs->maps.paths));
}
KernelTable<std::uint64_t, KernelGroup> KernelPrograms::groups() const {
    return KernelTable<std::uint64_t, KernelGroup>(bpf_map__fd(programs->maps.groups));
}

}  // namespace platform
