#include "Platform/Linux/Attribution/SocketUsers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/bpf.h>
#include <linux/magic.h>
#include <linux/mount.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <utility>

#include "Platform/Linux/Attribution/KernelProgram.h"
#include "Platform/Linux/Attribution/ProcessStatus.h"
#include "Platform/Linux/PlatformLog.h"

namespace platform {

namespace {

constexpr std::uint32_t noteLimit = 8192;
constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
constexpr std::uint64_t memoryOfDestination = 2 * nanosecondsPerSecond;

// What the programs note, in both tables.
struct Note {
    std::uint64_t cookie;
    std::uint32_t pid;
    std::uint32_t uid;
    std::uint32_t sourcePort;  // host byte order, 0 if the socket had none yet
    std::uint32_t unused;
    std::uint64_t time;  // nanoseconds since boot
};

// IPv4 addresses as IPv6 writes them.
struct DestinationKey {
    std::uint32_t address[4];
    std::uint32_t port;  // network byte order
    std::uint32_t protocol;
};

constexpr std::uint32_t mappedPrefix = 0xffff0000;  // the word before an IPv4 address, in memory

// Offsets from the frame pointer at which a program builds its keys and the note.
constexpr std::int16_t noteAt = -static_cast<int>(sizeof(Note));
constexpr std::int16_t cookieAt = noteAt - 8;
constexpr std::int16_t destinationAt = cookieAt - static_cast<int>(sizeof(DestinationKey));

constexpr std::int16_t fieldAt(std::int16_t start, std::size_t offset) {
    return static_cast<std::int16_t>(start + static_cast<std::int16_t>(offset));
}

long bpf(bpf_cmd command, bpf_attr& attributes) {
    return ::syscall(SYS_bpf, command, &attributes, sizeof attributes);
}

FileDescriptor makeTable(std::uint32_t keySize) {
    bpf_attr attributes{};
    attributes.map_type = BPF_MAP_TYPE_LRU_HASH;
    attributes.key_size = keySize;
    attributes.value_size = sizeof(Note);
    attributes.max_entries = noteLimit;
    return FileDescriptor(static_cast<int>(bpf(BPF_MAP_CREATE, attributes)));
}

std::optional<Note> findNote(const FileDescriptor& table, const void* key) {
    Note note{};
    bpf_attr attributes{};
    attributes.map_fd = static_cast<std::uint32_t>(table.get());
    attributes.key = reinterpret_cast<std::uint64_t>(key);
    attributes.value = reinterpret_cast<std::uint64_t>(&note);
    if (bpf(BPF_MAP_LOOKUP_ELEM, attributes) != 0) return std::nullopt;
    return note;
}

// At which hook a program runs, and which kind of address it finds there.
struct Hook {
    bpf_attach_type type;
    bool isIPv6;
};

constexpr std::array<Hook, 4> hooks = {{{BPF_CGROUP_INET4_CONNECT, false},
                                        {BPF_CGROUP_INET6_CONNECT, true},
                                        {BPF_CGROUP_UDP4_SENDMSG, false},
                                        {BPF_CGROUP_UDP6_SENDMSG, true}}};

// The number of our network namespace, as the programs see it; nothing before Linux 5.14.
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

void buildNote(KernelProgram& program) {
    program.copy(BPF_REG_1, BPF_REG_6);
    program.call(BPF_FUNC_get_socket_cookie);
    program.store(BPF_DW, fieldAt(noteAt, offsetof(Note, cookie)), BPF_REG_0);
    program.store(BPF_DW, cookieAt, BPF_REG_0);
    program.call(BPF_FUNC_get_current_pid_tgid);
    program.shiftRight(BPF_REG_0, 32);
    program.store(BPF_W, fieldAt(noteAt, offsetof(Note, pid)), BPF_REG_0);
    program.call(BPF_FUNC_get_current_uid_gid);
    program.store(BPF_W, fieldAt(noteAt, offsetof(Note, uid)), BPF_REG_0);
    program.call(BPF_FUNC_ktime_get_boot_ns);
    program.store(BPF_DW, fieldAt(noteAt, offsetof(Note, time)), BPF_REG_0);
    program.load(BPF_DW, BPF_REG_1, BPF_REG_6, offsetof(bpf_sock_addr, sk));
    program.load(BPF_W, BPF_REG_1, BPF_REG_1, offsetof(bpf_sock, src_port));
    program.store(BPF_W, fieldAt(noteAt, offsetof(Note, sourcePort)), BPF_REG_1);
    program.storeNumber(fieldAt(noteAt, offsetof(Note, unused)), 0);
}

void buildDestination(KernelProgram& program, bool isIPv6) {
    constexpr std::int16_t at = destinationAt;
    program.storeNumber(at, 0);
    program.storeNumber(at + 4, 0);
    program.storeNumber(at + 8, mappedPrefix);
    if (isIPv6) {
        for (int word = 0; word < 4; ++word) {
            const auto offset =
                offsetof(bpf_sock_addr, user_ip6) + 4U * static_cast<unsigned>(word);
            program.load(BPF_W, BPF_REG_1, BPF_REG_6, offset);
            program.store(BPF_W, static_cast<std::int16_t>(at + 4 * word), BPF_REG_1);
        }
    } else {
        program.load(BPF_W, BPF_REG_1, BPF_REG_6, offsetof(bpf_sock_addr, user_ip4));
        program.store(BPF_W, at + 12, BPF_REG_1);
    }
    program.load(BPF_W, BPF_REG_1, BPF_REG_6, offsetof(bpf_sock_addr, user_port));
    program.store(BPF_W, fieldAt(at, offsetof(DestinationKey, port)), BPF_REG_1);
    program.load(BPF_W, BPF_REG_1, BPF_REG_6, offsetof(bpf_sock_addr, protocol));
    program.store(BPF_W, fieldAt(at, offsetof(DestinationKey, protocol)), BPF_REG_1);
}

void noteIn(KernelProgram& program, const FileDescriptor& table, std::int16_t keyAt) {
    program.setTable(BPF_REG_1, table);
    program.setAddress(BPF_REG_2, keyAt);
    program.setAddress(BPF_REG_3, noteAt);
    program.set(BPF_REG_4, BPF_ANY);
    program.call(BPF_FUNC_map_update_elem);
}

// Notes who turns to which destination through which socket, and lets everything happen.
FileDescriptor loadProgram(const Hook& hook, std::uint64_t ourNamespace,
                           const FileDescriptor& bySocket, const FileDescriptor& byDestination) {
    KernelProgram program;
    program.copy(BPF_REG_6, BPF_REG_1);
    program.call(BPF_FUNC_get_netns_cookie);
    program.setWide(BPF_REG_1, ourNamespace);
    program.endUnlessEqual(BPF_REG_0, BPF_REG_1);
    buildNote(program);
    buildDestination(program, hook.isIPv6);
    noteIn(program, bySocket, cookieAt);
    noteIn(program, byDestination, destinationAt);
    program.end();

    bpf_attr attributes{};
    attributes.prog_type = BPF_PROG_TYPE_CGROUP_SOCK_ADDR;
    attributes.expected_attach_type = hook.type;
    attributes.insns = reinterpret_cast<std::uint64_t>(program.instructions().data());
    attributes.insn_cnt = static_cast<std::uint32_t>(program.instructions().size());
    attributes.license = reinterpret_cast<std::uint64_t>("");
    return FileDescriptor(static_cast<int>(bpf(BPF_PROG_LOAD, attributes)));
}

// Attached for as long as the result is open.
FileDescriptor attachProgram(const FileDescriptor& program, const FileDescriptor& controlGroups,
                             bpf_attach_type type) {
    bpf_attr attributes{};
    attributes.link_create.prog_fd = static_cast<std::uint32_t>(program.get());
    attributes.link_create.target_fd = static_cast<std::uint32_t>(controlGroups.get());
    attributes.link_create.attach_type = type;
    return FileDescriptor(static_cast<int>(bpf(BPF_LINK_CREATE, attributes)));
}

DestinationKey keyOf(const FlowTuple& flow) {
    DestinationKey key{{0, 0, mappedPrefix, 0},
                       htons(flow.destinationPort),
                       static_cast<std::uint32_t>(flow.protocol)};
    if (flow.family == AF_INET6) {
        std::memcpy(key.address, flow.destinationAddress.data(), sizeof key.address);
    } else {
        std::memcpy(&key.address[3], flow.destinationAddress.data(), sizeof key.address[3]);
    }
    return key;
}

std::uint64_t nanosecondsSinceBoot() {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * nanosecondsPerSecond +
           static_cast<std::uint64_t>(now.tv_nsec);
}

SocketUser userIn(const Note& note) {
    static const auto ticksPerSecond = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    return {static_cast<pid_t>(note.pid), note.uid, note.cookie,
            note.time / (nanosecondsPerSecond / ticksPerSecond)};
}

}  // namespace

std::unique_ptr<SocketUsers> SocketUsers::attach() {
    const auto ourNamespace = networkNamespace();
    if (!ourNamespace || !isFirstProcessNamespace()) return nullptr;
    std::unique_ptr<SocketUsers> users(new SocketUsers);
    users->bySocket = makeTable(sizeof(std::uint64_t));
    users->byDestination = makeTable(sizeof(DestinationKey));
    const auto controlGroups = openControlGroups();
    for (std::size_t index = 0; index < hooks.size(); ++index) {
        const auto program =
            loadProgram(hooks[index], *ourNamespace, users->bySocket, users->byDestination);
        auto attachment =
            program ? attachProgram(program, controlGroups, hooks[index].type) : FileDescriptor();
        if (!attachment) {
            platformLog.error(
                "The kernel does not note who opens a socket: %{public}s. Short-lived programs may "
                "go unrecognised",
                std::strerror(errno));
            return nullptr;
        }
        users->attachments[index] = std::move(attachment);
    }
    return users;
}

std::optional<SocketUser> SocketUsers::userOf(std::uint64_t cookie) const {
    const auto note = findNote(bySocket, &cookie);
    return note ? std::optional(userIn(*note)) : std::nullopt;
}

std::optional<SocketUser> SocketUsers::latestUserFor(const FlowTuple& flow) const {
    const auto key = keyOf(flow);
    const auto note = findNote(byDestination, &key);
    if (!note || nanosecondsSinceBoot() - note->time > memoryOfDestination) return std::nullopt;
    if (note->sourcePort != 0 && note->sourcePort != flow.sourcePort) return std::nullopt;
    return userIn(*note);
}

}  // namespace platform
