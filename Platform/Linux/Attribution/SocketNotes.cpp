#include "Platform/Linux/Attribution/SocketNotes.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string_view>

#include "Platform/Linux/PlatformLog.h"

namespace platform {

namespace {

// Longer than any packet waits for its verdict.
constexpr std::uint64_t memoryOfClosed = 4'000'000'000;

// IPv4 addresses as IPv6 writes them.
void setAddress(std::uint32_t (&words)[4], int family, const std::uint8_t* address) {
    if (family == AF_INET6) {
        std::memcpy(words, address, sizeof words);
    } else {
        words[2] = htonl(0xffff);
        std::memcpy(&words[3], address, sizeof words[3]);
    }
}

KernelTuple tupleOf(const FlowTuple& flow) {
    KernelTuple tuple{};
    setAddress(tuple.local, flow.family, flow.sourceAddress.data());
    setAddress(tuple.remote, flow.family, flow.destinationAddress.data());
    tuple.localPort = flow.sourcePort;
    tuple.remotePort = flow.destinationPort;
    tuple.protocol = static_cast<std::uint32_t>(flow.protocol);
    return tuple;
}

bool isTo(const KernelNote& note, const FlowTuple& flow) {
    const auto tuple = tupleOf(flow);
    return note.tuple.remotePort == tuple.remotePort &&
           std::memcmp(note.tuple.remote, tuple.remote, sizeof tuple.remote) == 0;
}

std::uint64_t nanosecondsSinceBoot() {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 +
           static_cast<std::uint64_t>(now.tv_nsec);
}

bool isFresh(const KernelNote& closed) {
    return nanosecondsSinceBoot() - closed.closed <= memoryOfClosed;
}

// By its tuple, or by that of a connection over a route of its own.
template <class Value>
std::optional<Value> findConnection(const KernelTable<KernelTuple, Value>& table,
                                    const FlowTuple& flow) {
    auto tuple = tupleOf(flow);
    auto found = table.find(tuple);
    if (found) return found;
    std::memset(tuple.remote, 0, sizeof tuple.remote);
    return table.find(tuple);
}

std::string_view textIn(const char* text, std::size_t size) {
    return {text, ::strnlen(text, size)};
}

}  // namespace

std::unique_ptr<SocketNotes> SocketNotes::attach() {
    const char* failedStep = nullptr;
    auto programs = KernelPrograms::attach(failedStep);
    if (!programs) {
        platformLog.error(
            "The kernel does not note who opens a socket: cannot %{public}s: %{public}s. Flows are "
            "attributed by searching /proc, which is slower, and short-lived programs may go "
            "unrecognised",
            failedStep, std::strerror(errno));
        return nullptr;
    }
    return std::unique_ptr<SocketNotes>(new SocketNotes(std::move(programs)));
}

std::optional<KernelNote> SocketNotes::ofOpenSocket(const FlowTuple& flow) const {
    if (flow.protocol == IPPROTO_TCP) {
        const auto cookie = findConnection(programs->connections(), flow);
        return cookie ? ofSocket(*cookie) : std::nullopt;
    }
    auto sender = programs->ports().find(flow.sourcePort);
    const bool isSender = sender && sender->closed == 0 && isTo(*sender, flow);
    return isSender ? std::move(sender) : ofEarlierSender(flow);
}

// Another socket on the port has sent since.
std::optional<KernelNote> SocketNotes::ofEarlierSender(const FlowTuple& flow) const {
    auto tuple = tupleOf(flow);
    std::memset(tuple.local, 0, sizeof tuple.local);
    const auto cookie = programs->sendings().find(tuple);
    return cookie ? ofSocket(*cookie) : std::nullopt;
}

std::optional<KernelNote> SocketNotes::ofSocket(std::uint64_t cookie) const {
    return programs->notes().find(cookie);
}

std::optional<KernelNote> SocketNotes::ofLostSocket(const FlowTuple& flow) const {
    if (flow.protocol == IPPROTO_TCP) {
        auto note = findConnection(programs->abandoned(), flow);
        return note && isFresh(*note) ? std::move(note) : std::nullopt;
    }
    auto sender = programs->ports().find(flow.sourcePort);
    if (!sender || sender->closed == 0) return sender;
    return isFresh(*sender) && isTo(*sender, flow) ? std::move(sender) : std::nullopt;
}

std::optional<std::string> SocketNotes::pathOf(const KernelFile& executable) const {
    if (executable.inode == 0) return std::nullopt;
    const auto noted = programs->paths().find(executable);
    if (!noted || noted->isComplete == 0) return std::nullopt;
    std::string path;
    std::string_view names(noted->names, std::min<std::size_t>(noted->length, sizeof noted->names));
    while (!names.empty()) {
        const auto name = names.substr(0, names.find('\0'));
        path.insert(0, "/" + std::string(name));
        names.remove_prefix(std::min(name.size() + 1, names.size()));
    }
    return path.empty() ? std::nullopt : std::optional(path);
}

std::string SocketNotes::controlGroupPath(std::uint64_t id) const {
    std::string path;
    const auto group = programs->groups().find(id);
    if (!group) return path;
    for (const auto& text : group->names) {
        const auto name = textIn(text, sizeof text);
        if (name.empty()) break;
        path.insert(0, "/" + std::string(name));
    }
    return path;
}

void SocketNotes::forgetClosed() const {
    const auto ports = programs->ports();
    const auto now = nanosecondsSinceBoot();
    for (auto port = ports.keyAfter(nullptr); port;) {
        const auto next = ports.keyAfter(&*port);
        // At once, as the port may get another socket.
        const auto note = ports.find(*port);
        if (note && note->closed != 0 && note->closed + memoryOfClosed < now) ports.remove(*port);
        port = next;
    }
}

}  // namespace platform
