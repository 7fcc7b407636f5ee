#include "Host/vantryctl/KernelCheck.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <nftables/libnftables.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include "Platform/Linux/Attribution/FlowOwner.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Kernel/KernelPrograms.h"
#include "Platform/Linux/Packets/PacketQueue.h"
#include "Platform/Linux/Packets/VerdictProbe.h"
#include "Platform/Linux/Rules/PacketTable.h"

namespace vantryctl {

using platform::FileDescriptor;

namespace {

// What the child finds out, in a form that goes through a pipe. Error numbers; 0 is success.
struct Probes {
    int ownNamespace = ENOSYS;
    int queueSocket = ENOSYS;
    int wholeTable = ENOSYS;
    bool hasNativeQueue = false;
    bool hasOwnerFlag = false;
    bool endsSockets = false;
    int verdictTrial = ENOSYS;
    bool isVerdictDirect = false;
};

using platform::interception::VerdictCarrier;

bool accepts(const char* rules) {
    const std::unique_ptr<nft_ctx, decltype(&nft_ctx_free)> context(nft_ctx_new(NFT_CTX_DEFAULT),
                                                                    &nft_ctx_free);
    if (!context) return false;
    nft_ctx_buffer_error(context.get());
    return nft_run_cmd_from_buffer(context.get(), rules) == 0;
}

// With the right to make one a network namespace is enough; others need a user namespace around it.
int enterOwnNamespace() {
    const bool isInside = unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0;
    return isInside ? 0 : errno;
}

bool bringLoopbackUp() {
    const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    return ioctl(socket.get(), SIOCSIFFLAGS, &request) == 0;
}

platform::FlowTuple tupleOf(const sockaddr_in& source, const sockaddr_in& destination) {
    platform::FlowTuple flow;
    flow.protocol = IPPROTO_TCP;
    flow.family = AF_INET;
    std::memcpy(flow.sourceAddress.data(), &source.sin_addr, 4);
    std::memcpy(flow.destinationAddress.data(), &destination.sin_addr, 4);
    flow.sourcePort = ntohs(source.sin_port);
    flow.destinationPort = ntohs(destination.sin_port);
    return flow;
}

sockaddr_in localName(int socket) {
    sockaddr_in name{};
    socklen_t length = sizeof name;
    getsockname(socket, reinterpret_cast<sockaddr*>(&name), &length);
    return name;
}

bool canEndASocket() {
    const FileDescriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const FileDescriptor client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in loopback{};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto* address = reinterpret_cast<const sockaddr*>(&loopback);
    if (!bringLoopbackUp() || bind(listener.get(), address, sizeof loopback) != 0 ||
        listen(listener.get(), 1) != 0)
        return false;
    const sockaddr_in server = localName(listener.get());
    address = reinterpret_cast<const sockaddr*>(&server);
    return connect(client.get(), address, sizeof server) == 0 &&
           platform::FlowAttribution(nullptr).destroySocket(
               tupleOf(localName(client.get()), server));
}

// Gives one verdict for real.
void tryAVerdict(Probes& found) {
    auto table = platform::interception::PacketTable::open();
    auto queue = platform::interception::PacketQueue::open();
    auto entries = platform::interception::ConnectionEntries::open();
    if (!table || !queue || !entries || !bringLoopbackUp()) return;
    const auto tried = platform::interception::probeVerdicts(**table, **queue, **entries,
                                                             platform::interception::MarkPlace(24));
    found.verdictTrial = tried ? 0 : tried.error().code();
    found.isVerdictDirect = tried && *tried == VerdictCarrier::connection;
}

int installWholeTable(int& queueError) {
    const auto queue = platform::interception::PacketQueue::open();
    queueError = queue ? 0 : queue.error().code();
    const auto table = platform::interception::PacketTable::open();
    if (!table) return table.error().code();
    platform::interception::PacketTableContent content;
    if (queue) content.queues = (*queue)->numbers();
    content.listeners = {1, 1};
    content.offeredProtocols = {IPPROTO_TCP, IPPROTO_UDP};
    const auto installed = (*table)->install(content);
    return installed ? 0 : installed.error().code();
}

Probes probe() {
    Probes found;
    found.ownNamespace = enterOwnNamespace();
    if (found.ownNamespace != 0) return found;
    found.hasOwnerFlag = accepts("add table inet vantrycheck { flags owner; }");
    found.hasNativeQueue = accepts(
        "table inet vantryqueue { chain c { type filter hook output priority 0; queue flags bypass "
        "to 0; }; }");
    found.wholeTable = installWholeTable(found.queueSocket);
    found.endsSockets = canEndASocket();
    tryAVerdict(found);
    return found;
}

std::optional<Probes> probeInChild() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
    const FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        const Probes found = probe();
        _exit(write(writing.get(), &found, sizeof found) == sizeof found ? 0 : 1);
    }
    writing = {};
    Probes found;
    const bool isComplete = child > 0 && read(reading.get(), &found, sizeof found) == sizeof found;
    if (child > 0) waitpid(child, nullptr, 0);
    if (!isComplete) return std::nullopt;
    return found;
}

std::string reasonOf(int error) { return std::strerror(error); }

Finding queueFinding(const Probes& found) {
    if (found.queueSocket != 0)
        return {"packet queues", Verdict::missing,
                "no queue to be had: " + reasonOf(found.queueSocket), "modprobe nfnetlink_queue"};
    if (found.hasNativeQueue) return {"packet queues", Verdict::good, "in the native form", ""};
    if (found.wholeTable == 0) return {"packet queues", Verdict::good, "in the older form", ""};
    return {"packet queues", Verdict::missing, "neither the native nor the older form is there",
            "modprobe nft_queue, or modprobe xt_NFQUEUE and nft_compat"};
}

Finding tableFinding(const Probes& found) {
    if (found.wholeTable == 0) return {"packet rules", Verdict::good, "all can be installed", ""};
    return {"packet rules", Verdict::missing,
            "they cannot be installed: " + reasonOf(found.wholeTable),
            "modprobe nf_tables nft_ct nft_redir nft_reject_inet nf_conntrack; a kernel of 5.16 or "
            "later is needed"};
}

Finding ownerFinding(const Probes& found) {
    if (found.hasOwnerFlag)
        return {"owner flag", Verdict::good, "rules vanish with the daemon", ""};
    return {"owner flag", Verdict::warning,
            "rules would stay behind a daemon that dies, though packets pass",
            "a kernel of 5.12 or later has it"};
}

Finding verdictFinding(const Probes& found) {
    if (found.verdictTrial != 0)
        return {"verdicts", Verdict::missing,
                "none gets to its connection: " + reasonOf(found.verdictTrial),
                "modprobe nf_conntrack_netlink"};
    if (found.isVerdictDirect)
        return {"verdicts", Verdict::good, "they get to their connections by themselves", ""};
    return {"verdicts", Verdict::good,
            "the packet's priority carries them to their connections, as this kernel lacks "
            "CONFIG_NETFILTER_NETLINK_GLUE_CT",
            ""};
}

// The programs see nothing before they are taken away again.
Finding notesFinding() {
    const char* step = nullptr;
    if (platform::KernelPrograms::attach(step))
        return {"naming programs", Verdict::good, "the kernel notes who uses which socket", ""};
    return {"naming programs", Verdict::warning,
            std::string("/proc is searched for them, which is slower and misses what ends at once: "
                        "cannot ") +
                step + ": " + reasonOf(errno),
            "a kernel with CONFIG_DEBUG_INFO_BTF (see /sys/kernel/btf/vmlinux) is needed, and that "
            "the daemon runs outside of containers"};
}

Finding socketFinding(const Probes& found) {
    if (found.endsSockets)
        return {"ending sockets", Verdict::good, "a blocked application fails at once", ""};
    return {"ending sockets", Verdict::warning,
            "a blocked application's connections hang until they time out",
            "the kernel needs CONFIG_INET_DIAG_DESTROY"};
}

}  // namespace

Findings checkKernel() {
    const auto found = probeInChild();
    if (!found || found->ownNamespace != 0)
        return {{"kernel", Verdict::unknown,
                 found ? "no namespace to try things in: " + reasonOf(found->ownNamespace)
                       : "what it can do could not be tried",
                 "Run it as root."}};
    return {queueFinding(*found),  tableFinding(*found),   ownerFinding(*found),
            socketFinding(*found), verdictFinding(*found), notesFinding()};
}

}  // namespace vantryctl
