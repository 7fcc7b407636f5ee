// The kernel's packet queues, one for each purpose on the same netlink socket: packets come in, verdicts
// go out. Packets that the queue has no room for pass, and so do all packets once no one reads. One
// thread may receive while any number of threads give verdicts.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/Packets/HeldPacket.h"
#include "Platform/Linux/Result.h"
#include "Platform/Linux/Rules/PacketTable.h"

namespace platform::interception {

// Lets a held packet go on, or drops it.
struct PacketVerdict {
    std::uint16_t queueNumber = 0;
    std::uint32_t id = 0;
    std::uint32_t priority = 0;  // the packet's own
    // The byte that its connection's mark gets; nothing: that stays as it is.
    std::optional<std::uint8_t> connectionByte;
    bool isDropped = false;
    std::uint64_t datagramSocket = 0;  // the cookie of a datagram's socket, if its end is watched
    // Of a steered datagram: after how many changes of the ways.
    std::optional<std::uint64_t> steeredAfter = std::nullopt;

    // Of a packet that goes on and leaves its connection as it is.
    static PacketVerdict pass(const HeldPacket& packet) {
        return {packet.queueNumber, packet.id, packet.priority, std::nullopt};
    }
    static PacketVerdict of(const HeldPacket& packet, FlowState state, unsigned generation = 0) {
        return {packet.queueNumber, packet.id, packet.priority, markByte(state, generation)};
    }
    static PacketVerdict drop(const HeldPacket& packet) {
        return {packet.queueNumber, packet.id, packet.priority, std::nullopt, true};
    }
};

class PacketQueue {
public:
    // Binds queue numbers that no one else uses. Fails if the kernel refuses.
    static Result<std::unique_ptr<PacketQueue>> open();
    // Packets still held are dropped by the kernel: let them go first.
    ~PacketQueue();

    const QueueNumbers& numbers() const { return queues; }

    // Becomes readable when packets come.
    int descriptor() const { return socket.descriptor(); }
    // Appends packets that are there, some dozens at most, without waiting. True if there may be
    // more.
    bool receive(std::vector<HeldPacket>& packets);

    // How `release` gets a verdict to the connection. To be said before the first one.
    void carryVerdictsBy(VerdictCarrier wanted, MarkPlace inPlace) {
        carrier = wanted;
        place = inPlace;
    }
    void release(std::span<const PacketVerdict> verdicts);

    // Loads what the kernel needs to take a connection's mark with a verdict. False if it has no such
    // thing.
    bool prepareConnectionMarks();

private:
    struct Buffers;
    explicit PacketQueue(netlink::Socket opened);

    Result<> bindQueues();
    Result<> bindQueue(std::uint16_t number);
    void append(std::span<char> datagram, std::vector<HeldPacket>& packets);
    void append(std::uint16_t number, const netlink::Attributes& attributes,
                std::vector<HeldPacket>& packets);

    Result<> setConnectionFlag(bool isOn);

    netlink::Socket socket;
    std::unique_ptr<Buffers> buffers;
    QueueNumbers queues;
    std::atomic<VerdictCarrier> carrier = VerdictCarrier::priority;
    std::atomic<MarkPlace> place = MarkPlace(24);
};

}  // namespace platform::interception
