#include "Host/vantryctl/PacketWatch.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vantryctl {

using platform::FlowTuple;
using Clock = std::chrono::steady_clock;

namespace {

// Enough for both headers, with options.
constexpr std::size_t longestLook = 192;
constexpr std::size_t shortestIPv4 = 20;
constexpr std::size_t lengthOfIPv6 = 40;
constexpr std::size_t placeOfTCPFlags = 13;
constexpr std::uint8_t syn = 0x02;
constexpr std::uint8_t ack = 0x10;

std::uint16_t numberAt(std::span<const std::uint8_t> bytes, std::size_t place) {
    return static_cast<std::uint16_t>(bytes[place] << 8 | bytes[place + 1]);
}

// Fills in the ports; false for what begins no flow.
bool readPorts(FlowTuple& flow, std::span<const std::uint8_t> segment) {
    const bool isTCP = flow.protocol == IPPROTO_TCP;
    if (!isTCP && flow.protocol != IPPROTO_UDP) return false;
    if (segment.size() < (isTCP ? placeOfTCPFlags + 1 : 4)) return false;
    if (isTCP && (segment[placeOfTCPFlags] & (syn | ack)) != syn) return false;
    flow.sourcePort = numberAt(segment, 0);
    flow.destinationPort = numberAt(segment, 2);
    return true;
}

std::optional<FlowTuple> flowInIPv4(std::span<const std::uint8_t> packet) {
    if (packet.size() < shortestIPv4) return std::nullopt;
    const std::size_t length = std::size_t{packet[0] & 0x0fU} * 4;
    const bool isLaterFragment = (numberAt(packet, 6) & 0x1fff) != 0;
    if (length < shortestIPv4 || packet.size() < length || isLaterFragment) return std::nullopt;
    FlowTuple flow{.protocol = packet[9], .family = AF_INET};
    std::ranges::copy(packet.subspan(12, 4), flow.sourceAddress.begin());
    std::ranges::copy(packet.subspan(16, 4), flow.destinationAddress.begin());
    return readPorts(flow, packet.subspan(length)) ? std::optional(flow) : std::nullopt;
}

// Packets with extension headers are passed over: applications send none.
std::optional<FlowTuple> flowInIPv6(std::span<const std::uint8_t> packet) {
    if (packet.size() < lengthOfIPv6) return std::nullopt;
    FlowTuple flow{.protocol = packet[6], .family = AF_INET6};
    std::ranges::copy(packet.subspan(8, 16), flow.sourceAddress.begin());
    std::ranges::copy(packet.subspan(24, 16), flow.destinationAddress.begin());
    return readPorts(flow, packet.subspan(lengthOfIPv6)) ? std::optional(flow) : std::nullopt;
}

std::string keyOf(const FlowTuple& flow, int interface) {
    std::string key(flow.sourceAddress.begin(), flow.sourceAddress.end());
    key.append(flow.destinationAddress.begin(), flow.destinationAddress.end());
    for (const int number :
         {int{flow.sourcePort}, int{flow.destinationPort}, flow.protocol, interface})
        key += ":" + std::to_string(number);
    return key;
}

std::string nameOf(int interface) {
    char name[IF_NAMESIZE] = "";
    if_indextoname(static_cast<unsigned>(interface), name);
    return name;
}

}  // namespace

std::optional<FlowTuple> flowInPacket(std::span<const std::uint8_t> packet) {
    if (packet.empty()) return std::nullopt;
    switch (packet[0] >> 4) {
        case 4:
            return flowInIPv4(packet);
        case 6:
            return flowInIPv6(packet);
        default:
            return std::nullopt;
    }
}

Outcome<PacketWatch> PacketWatch::open() {
    platform::FileDescriptor socket(
        ::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETH_P_ALL)));
    if (socket) {
        constexpr int room = 16 << 20;
        setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
        return PacketWatch(std::move(socket));
    }
    if (errno == EPERM || errno == EACCES)
        return Failure{ExitCode::notPermitted, "Only root may see what leaves the machine.",
                       "sudo vantryctl verify"};
    return Failure{
        ExitCode::failed,
        std::string("What leaves the machine cannot be seen: ") + std::strerror(errno) + ".", ""};
}

void PacketWatch::watch(std::chrono::milliseconds time, const volatile std::sig_atomic_t& isOver,
                        const std::function<void(const DepartingFlow&)>& visit) {
    const auto end = Clock::now() + time;
    for (auto now = Clock::now(); now < end && isOver == 0; now = Clock::now()) {
        pollfd packets{socket.get(), POLLIN, 0};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now);
        poll(&packets, 1, static_cast<int>(left.count()));
        read(visit);
    }
}

void PacketWatch::read(const std::function<void(const DepartingFlow&)>& visit) {
    for (;;) {
        std::array<std::uint8_t, longestLook> bytes;
        sockaddr_ll from{};
        socklen_t length = sizeof from;
        const auto count = recvfrom(socket.get(), bytes.data(), bytes.size(), 0,
                                    reinterpret_cast<sockaddr*>(&from), &length);
        if (count < 0) return;
        const auto size = std::min(static_cast<std::size_t>(count), bytes.size());
        if (from.sll_pkttype != PACKET_OUTGOING) continue;
        auto flow = flowInPacket(std::span<const std::uint8_t>(bytes.data(), size));
        // Sockets that are bound to an interface are found by it.
        if (flow) flow->outputInterface = static_cast<unsigned>(from.sll_ifindex);
        if (flow && seen.insert(keyOf(*flow, from.sll_ifindex)).second)
            visit({*flow, nameOf(from.sll_ifindex)});
    }
}

std::uint32_t PacketWatch::missed() const {
    tpacket_stats statistics{};
    socklen_t length = sizeof statistics;
    getsockopt(socket.get(), SOL_PACKET, PACKET_STATISTICS, &statistics, &length);
    return statistics.tp_drops;
}

}  // namespace vantryctl
