#include "Platform/Linux/Kernel/ControlGroupHooks.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/mount.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>

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

}  // namespace

void logDetailsOfKernelPrograms() { libbpf_set_print(logDetail); }

std::optional<std::uint64_t> networkNamespace() {
    const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    std::uint64_t cookie = 0;
    socklen_t length = sizeof cookie;
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_NETNS_COOKIE, &cookie, &length) != 0) {
        return std::nullopt;
    }
    return cookie;
}

FileDescriptor openControlGroups() {
    for (const auto* place : {"/sys/fs/cgroup", "/sys/fs/cgroup/unified"}) {
        FileDescriptor folder(::open(place, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (folder && isControlGroupTree(folder)) return folder;
    }
    return mountControlGroups();
}

bool attachAll(const bpf_object_skeleton& object, const FileDescriptor& controlGroups) {
    for (int index = 0; index < object.prog_cnt; ++index) {
        const auto& program = object.progs[index];
        *program.link = bpf_program__attach_cgroup(*program.prog, controlGroups.get());
        if (*program.link == nullptr) return false;
    }
    return true;
}

}  // namespace platform
