#include "Platform/Linux/Packets/VerdictProbe.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <vector>

#include "Platform/Linux/FileDescriptor.h"

namespace platform::interception {

namespace {

constexpr std::chrono::milliseconds longestProbe{500};

bool isReadable(int descriptor) {
    pollfd polled{descriptor, POLLIN, 0};
    return poll(&polled, 1, static_cast<int>(longestProbe.count())) == 1;
}

// A socket that sends to itself over the loopback interface, under our mark.
class OwnDatagram {
public:
    static Result<OwnDatagram> send(std::uint32_t mark) {
        OwnDatagram made;
        const int descriptor = made.socket.get();
        auto* const name = reinterpret_cast<sockaddr*>(&made.address);
        socklen_t length = sizeof made.address;
        const bool isSent =
            made.socket && setsockopt(descriptor, SOL_SOCKET, SO_MARK, &mark, sizeof mark) == 0 &&
            bind(descriptor, name, length) == 0 && getsockname(descriptor, name, &length) == 0 &&
            sendto(descriptor, "?", 1, MSG_DONTWAIT, name, length) == 1;
        if (!isSent) return Error::last("send a datagram over the loopback interface");
        return made;
    }

    std::uint16_t port() const { return ntohs(address.sin_port); }
    bool hasArrived() const { return isReadable(socket.get()); }

private:
    OwnDatagram() {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }

    FileDescriptor socket{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    sockaddr_in address{};
};

std::optional<HeldPacket> awaitPacket(PacketQueue& queue, std::uint16_t port) {
    std::vector<HeldPacket> packets;
    while (isReadable(queue.descriptor())) {
        queue.receive(packets);
        const auto found = std::ranges::find_if(
            packets, [port](const HeldPacket& packet) { return packet.flow.sourcePort == port; });
        if (found != packets.end()) return *found;
    }
    return std::nullopt;
}

// Whether one verdict got to its connection.
Result<bool> tryVerdict(PacketQueue& queue, ConnectionEntries& entries, MarkPlace place) {
    // All bits of the byte are seen to arrive, or to stay away.
    constexpr FlowState state = FlowState::watched;
    constexpr unsigned generation = 0b01010;
    const auto datagram = OwnDatagram::send(place.ownValue());
    if (!datagram) return datagram.error();
    const auto packet = awaitPacket(queue, datagram->port());
    if (!packet) return Error(ETIMEDOUT, "get a packet of our own from the queue");
    const PacketVerdict verdict = PacketVerdict::of(*packet, state, generation);
    queue.release({&verdict, 1});
    if (!datagram->hasArrived()) return false;
    const auto mark = entries.markOf(packet->flow);
    entries.remove(packet->flow);
    return mark && (*mark & place.mask()) == place.value(state, generation);
}

}  // namespace

Result<VerdictCarrier> probeVerdicts(PacketTable& table, PacketQueue& queue,
                                     ConnectionEntries& entries, MarkPlace place) {
    for (const auto carrier : {VerdictCarrier::connection, VerdictCarrier::priority}) {
        if (carrier == VerdictCarrier::connection && !queue.prepareConnectionMarks()) continue;
        const auto installed = table.installProbe(place, queue.numbers().newFlows, carrier);
        if (!installed) return installed.error();
        queue.carryVerdictsBy(carrier, place);
        const auto worked = tryVerdict(queue, entries, place);
        if (!worked) return worked.error();
        if (*worked) return carrier;
    }
    return Error(EOPNOTSUPP, "give a verdict to a connection");
}

}  // namespace platform::interception
