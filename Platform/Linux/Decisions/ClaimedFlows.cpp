#include "Platform/Linux/Decisions/ClaimedFlows.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <linux/netfilter_ipv4.h>
#include <linux/netfilter_ipv6/ip6_tables.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/DescriptorReserve.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Packets/HeldPacket.h"
#include "Platform/Linux/PlatformLog.h"
#include "Platform/Linux/Relay/RelaySocketOptions.h"
#include "Platform/Linux/Relay/SocketFlow.h"
#include "Platform/Linux/Rules/ConnectionEntries.h"
#include "Platform/Linux/SystemError.h"

namespace platform::interception {

namespace {

constexpr std::chrono::seconds longestWait{10};
// Between two looks the claims cannot use up the reserve of descriptors.
constexpr unsigned claimsBetweenLooks = 8;

void fillFrom(const sockaddr_storage& address, std::array<std::uint8_t, 16>& bytes,
              std::uint16_t& port) {
    if (address.ss_family == AF_INET) {
        const auto& four = reinterpret_cast<const sockaddr_in&>(address);
        std::memcpy(bytes.data(), &four.sin_addr, sizeof four.sin_addr);
        port = ntohs(four.sin_port);
    } else {
        const auto& six = reinterpret_cast<const sockaddr_in6&>(address);
        std::memcpy(bytes.data(), &six.sin6_addr, sizeof six.sin6_addr);
        port = ntohs(six.sin6_port);
    }
}

// The flow as its application sees it; null, with errno set, if the kernel no longer knows.
std::optional<FlowTuple> originalFlow(int socket, const sockaddr_storage& peer) {
    const bool isIPv4 = peer.ss_family == AF_INET;
    sockaddr_storage wanted{};
    socklen_t length = sizeof wanted;
    if (getsockopt(socket, isIPv4 ? SOL_IP : SOL_IPV6,
                   isIPv4 ? SO_ORIGINAL_DST : IP6T_SO_ORIGINAL_DST, &wanted, &length) != 0)
        return std::nullopt;
    FlowTuple flow;
    flow.protocol = IPPROTO_TCP;
    flow.family = peer.ss_family;
    fillFrom(peer, flow.sourceAddress, flow.sourcePort);
    fillFrom(wanted, flow.destinationAddress, flow.destinationPort);
    return flow;
}

// The connection as its answers look: from the listener to the peer.
FlowTuple answersOn(int socket, const sockaddr_storage& peer) {
    sockaddr_storage listener{};
    socklen_t length = sizeof listener;
    getsockname(socket, reinterpret_cast<sockaddr*>(&listener), &length);
    FlowTuple flow;
    flow.protocol = IPPROTO_TCP;
    flow.family = peer.ss_family;
    fillFrom(listener, flow.sourceAddress, flow.sourcePort);
    fillFrom(peer, flow.destinationAddress, flow.destinationPort);
    return flow;
}

void reset(FileDescriptor socket) {
    const linger atOnce{1, 0};
    setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
}

std::uint16_t portOf(const FileDescriptor& listener) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length);
    std::array<std::uint8_t, 16> bytes{};
    std::uint16_t port = 0;
    fillFrom(address, bytes, port);
    return port;
}

FileDescriptor openListener(int family) {
    FileDescriptor listener(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener) return {};
    setRelayOptions(listener);
    sockaddr_storage address{};
    socklen_t length = 0;
    if (family == AF_INET) {
        auto& four = reinterpret_cast<sockaddr_in&>(address);
        four.sin_family = AF_INET;
        four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        length = sizeof four;
    } else {
        const int on = 1;
        setsockopt(listener.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        auto& six = reinterpret_cast<sockaddr_in6&>(address);
        six.sin6_family = AF_INET6;
        six.sin6_addr = in6addr_loopback;
        length = sizeof six;
    }
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        listen(listener.get(), SOMAXCONN) != 0)
        return {};
    return listener;
}

}  // namespace

// The claims whose connections have not come yet.
class ClaimedFlows::Awaited {
public:
    void add(const FlowTuple& flow, Flow claimed) {
        // The socket that had this place in the table is gone; its claim is not to wait for ever.
        if (const Flow overtaken = replace(flow, std::move(claimed)))
            overtaken->failOpening(systemError(ECONNABORTED));
    }

    void supply(FileDescriptor socket, const sockaddr_storage& peer) {
        const auto flow = originalFlow(socket.get(), peer);
        if (!flow) complain(errno);
        Flow claimed = flow ? take(*flow) : nullptr;
        if (flow && !claimed) claimed = takeTranslated(answersOn(socket.get(), peer));
        if (claimed)
            claimed->supplySocket(std::move(socket));
        else
            reset(std::move(socket));
    }

    void failThoseBefore(std::chrono::steady_clock::time_point deadline, const NSError& error) {
        std::vector<Flow> failed;
        {
            const MutexGuard guard(lock);
            std::erase_if(claims, [&](auto& entry) {
                if (entry.second.deadline > deadline) return false;
                failed.push_back(std::move(entry.second.flow));
                return true;
            });
        }
        for (const Flow& claimed : failed) claimed->failOpening(error);
    }

private:
    using Clock = std::chrono::steady_clock;

    void complain(int cause) {
        if (resets.isDue())
            platformLog.error("Reset a direct connection whose destination is unknown: %{public}s",
                              std::strerror(cause));
    }

    struct Claim {
        Flow flow;
        Clock::time_point deadline;
    };

    // Returns the flow that stood there before, or null.
    Flow replace(const FlowTuple& flow, Flow claimed) {
        const MutexGuard guard(lock);
        Claim& claim = claims[flow];
        claim.deadline = Clock::now() + longestWait;
        return std::exchange(claim.flow, std::move(claimed));
    }

    Flow take(const FlowTuple& flow) {
        const MutexGuard guard(lock);
        const auto found = claims.find(flow);
        if (found == claims.end()) return nullptr;
        Flow claimed = std::move(found->second.flow);
        claims.erase(found);
        return claimed;
    }

    // To the listener, connections from one port to several places would all look the same; the
    // kernel gives all but one of them another source port, and only its table knows the true one.
    Flow takeTranslated(const FlowTuple& answers) {
        std::optional<FlowTuple> flow;
        {
            const MutexGuard guard(entriesLock);
            if (entries) flow = entries->openingOf(answers);
        }
        return flow ? take(*flow) : nullptr;
    }

    Mutex entriesLock;
    const std::unique_ptr<ConnectionEntries> entries PT_GUARDED_BY(entriesLock) =
        ConnectionEntries::openOrNull();
    Mutex lock;
    std::unordered_map<FlowTuple, Claim, FlowHash, SameFlow> claims GUARDED_BY(lock);
    Seldom resets;
};

class ClaimedFlows::OpenFlows {
public:
    void add() {
        const MutexGuard guard(lock);
        ++count;
    }
    void remove() {
        const MutexGuard guard(lock);
        if (--count == 0) noneIsLeft.notifyAll();
    }
    void awaitNone(std::chrono::milliseconds longest) {
        const auto deadline = Condition::Clock::now() + longest;
        const MutexGuard hold(lock);
        while (count != 0 && noneIsLeft.waitUntil(lock, deadline)) {
        }
    }

private:
    Mutex lock;
    Condition noneIsLeft;
    std::size_t count GUARDED_BY(lock) = 0;
};

ClaimedFlows::ClaimedFlows()
    : awaited(std::make_shared<Awaited>()), openFlows(std::make_shared<OpenFlows>()) {
    const auto listen = [this](int family, std::uint16_t& port) {
        FileDescriptor listener = openListener(family);
        if (!listener) return std::unique_ptr<ConnectionAcceptor>();
        port = portOf(listener);
        return std::make_unique<ConnectionAcceptor>(
            std::move(listener),
            [waiting = awaited](FileDescriptor socket, const sockaddr_storage& peer) {
                waiting->supply(std::move(socket), peer);
            });
    };
    ipv4 = listen(AF_INET, listenerPorts.ipv4);
    ipv6 = listen(AF_INET6, listenerPorts.ipv6);
}

ClaimedFlows::~ClaimedFlows() {
    ipv4.reset();
    ipv6.reset();
    awaited->failThoseBefore(std::chrono::steady_clock::time_point::max(),
                             systemError(ECONNABORTED));
}

bool ClaimedFlows::canClaim(int family) {
    if ((family == AF_INET ? listenerPorts.ipv4 : listenerPorts.ipv6) == 0) return false;
    if (hadDescriptors && ++claimsSinceLook < claimsBetweenLooks) return true;
    claimsSinceLook = 0;
    const FileDescriptor probe(eventfd(0, EFD_CLOEXEC));
    hadDescriptors = probe && !DescriptorReserve::holds(probe.get());
    if (!hadDescriptors && shortages.isDue())
        platformLog.error("Descriptors are running out; new direct flows are left to the system");
    return hadDescriptors;
}

void ClaimedFlows::expect(const FlowTuple& flow, Flow claimed) {
    awaited->add(flow, std::move(claimed));
}

std::shared_ptr<void> ClaimedFlows::countAsOpen() {
    openFlows->add();
    return {nullptr, [flows = openFlows](void*) { flows->remove(); }};
}

void ClaimedFlows::awaitEnds(std::chrono::milliseconds longest) { openFlows->awaitNone(longest); }

void ClaimedFlows::failOverdue() {
    awaited->failThoseBefore(std::chrono::steady_clock::now(), systemError(ETIMEDOUT));
}

}  // namespace platform::interception
