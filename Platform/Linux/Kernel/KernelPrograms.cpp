#include "Platform/Linux/Kernel/KernelPrograms.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <KernelPrograms.skel.h>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <optional>

#include "Platform/Linux/PlatformLog.h"

namespace platform {

namespace {

// What libbpf has to say, and with it the kernel about a program that it refuses.
int logDetail(libbpf_print_level level, const char* format, va_list arguments) {
    if (level == LIBBPF_DEBUG) return 0;
    std::array<char, 1024> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    platformLog.debug("%{public}s", text.data());
    return 0;
}

// The number of our network namespace, as the programs see it; none before Linux 5.14.
std::optional<std::uint64_t> networkNamespace() {
    const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    std::uint64_t cookie = 0;
    socklen_t length = sizeof cookie;
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_NETNS_COOKIE, &cookie, &length) != 0) {
        return std::nullopt;
    }
    return cookie;
}

bool isControlGroupTree(const FileDescriptor& folder) {
    struct statfs status {};
    return ::fstatfs(folder.get(), &status) == 0 && status.f_type == CGROUP2_SUPER_MAGIC;
}

// For a machine on which the tree is mounted nowhere that we know. A service manager's sandbox may
// refuse this.
FileDescriptor mountControlGroups() {
    const FileDescriptor system(static_cast<int>(::syscall(SYS_fsopen, "cgroup2", FSOPEN_CLOEXEC)));
    const int descriptor = system.get();
    ::syscall(SYS_fsconfig, descriptor, FSCONFIG_CMD_CREATE, nullptr, nullptr, 0);
    return FileDescriptor(static_cast<int>(::syscall(SYS_fsmount, descriptor, FSMOUNT_CLOEXEC, 0)));
}

// The root of all control groups.
FileDescriptor openControlGroups() {
    for (const auto* place : {"/sys/fs/cgroup", "/sys/fs/cgroup/unified"}) {
        FileDescriptor folder(::open(place, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (folder && isControlGroupTree(folder)) return folder;
    }
    return mountControlGroups();
}

// For a program's process ids to mean anything here, they have to be counted as the kernel does.
bool seesAllProcesses() {
    constexpr ino_t inodeOfFirst = 0xEFFFFFFC;
    struct stat status {};
    return ::stat("/proc/self/ns/pid", &status) == 0 && status.st_ino == inodeOfFirst;
}

bool attachAll(const bpf_object_skeleton& object, const FileDescriptor& controlGroups) {
    for (int index = 0; index < object.prog_cnt; ++index) {
        const auto& program = object.progs[index];
        *program.link = bpf_program__attach_cgroup(*program.prog, controlGroups.get());
        if (*program.link == nullptr) return false;
    }
    return true;
}

}  // namespace

std::unique_ptr<KernelPrograms> KernelPrograms::attach(const char*& failedStep) {
    libbpf_set_print(logDetail);
    failedStep = "learn the number of the network namespace";
    const auto ourNetwork = networkNamespace();
    if (!ourNetwork) return nullptr;
    failedStep = "see all processes of the machine";
    errno = EPERM;
    if (!seesAllProcesses()) return nullptr;
    failedStep = "open the programs";
    auto* opened = kernel_programs::open();
    if (opened == nullptr) return nullptr;
    std::unique_ptr<KernelPrograms> result(new KernelPrograms(opened));
    opened->rodata->ourNetwork = *ourNetwork;
    failedStep = "load the programs";
    if (kernel_programs::load(opened) != 0) return nullptr;
    failedStep = "open the root of the control groups";
    const auto controlGroups = openControlGroups();
    if (!controlGroups) return nullptr;
    failedStep = "attach the programs to the root of the control groups";
    if (!attachAll(*opened->skeleton, controlGroups)) return nullptr;
    return result;
}

KernelPrograms::~KernelPrograms() {
    const int error = errno;
    kernel_programs::destroy(programs);
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
KernelTable<KernelFile, KernelPath> KernelPrograms::paths() const {
    return KernelTable<KernelFile, KernelPath>(bpf_map__fd(programs->maps.paths));
}
KernelTable<std::uint64_t, KernelGroup> KernelPrograms::groups() const {
    return KernelTable<std::uint64_t, KernelGroup>(bpf_map__fd(programs->maps.groups));
}

}  // namespace platform
