#include "Platform/Linux/Attribution/SocketUsers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "Platform/Linux/PlatformLog.h"

namespace platform {

namespace {

constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
// Longer than any packet waits for its verdict.
constexpr std::uint64_t memoryOfClosed = 4 * nanosecondsPerSecond;

// IPv4 addresses as IPv6 writes them.
void setAddress(std::uint32_t (&words)[4], int family, const std::uint8_t* address) {
    if (family == AF_INET6) {
        std::memcpy(words, address, sizeof words);
    } else {
        words[2] = htonl(0xffff);
        std::memcpy(&words[3], address, sizeof words[3]);
    }
}

bool isTo(const KernelNote& note, const FlowTuple& flow) {
    std::uint32_t remote[4] = {};
    setAddress(remote, flow.family, flow.destinationAddress.data());
    return note.tuple.remotePort == flow.destinationPort &&
           std::memcmp(remote, note.tuple.remote, sizeof remote) == 0;
}

std::uint64_t nanosecondsSinceBoot() {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * nanosecondsPerSecond +
           static_cast<std::uint64_t>(now.tv_nsec);
}

SocketUser userIn(const KernelNote& note) {
    static const auto ticksPerSecond = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    const auto& program = note.programs[0];
    return {static_cast<pid_t>(program.pid), program.effectiveUserId, note.cookie,
            note.time / (nanosecondsPerSecond / ticksPerSecond)};
}

}  // namespace

std::unique_ptr<SocketUsers> SocketUsers::attach() {
    const char* failedStep = nullptr;
    auto programs = KernelPrograms::attach(failedStep);
    if (!programs) {
        platformLog.error(
            "The kernel does not note who opens a socket: cannot %{public}s: %{public}s. "
            "Short-lived programs may go unrecognised",
            failedStep, std::strerror(errno));
        return nullptr;
    }
    return std::unique_ptr<SocketUsers>(new SocketUsers(std::move(programs)));
}

std::optional<SocketUser> SocketUsers::userOf(std::uint64_t cookie) const {
    const auto note = programs->notes().find(cookie);
    return note ? std::optional(userIn(*note)) : std::nullopt;
}

std::optional<SocketUser> SocketUsers::latestUserFor(const FlowTuple& flow) const {
    const auto note = programs->ports().find(flow.sourcePort);
    if (!note || !isTo(*note, flow)) return std::nullopt;
    const bool isFresh =
        note->closed == 0 || nanosecondsSinceBoot() - note->closed <= memoryOfClosed;
    return isFresh ? std::optional(userIn(*note)) : std::nullopt;
}

}  // namespace platform
