// The kernel's packet queues, three of them by purpose behind one netlink socket: packets come in,
// verdicts go out. Packets that the queue has no room for pass, and so do all packets once nobody
// reads. One thread may receive while any number of threads give verdicts.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "Platform/Linux/Interception/HeldPacket.h"
#include "Platform/Linux/Interception/PacketTable.h"
#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/Result.h"

namespace platform::interception {

// Lets a held packet go on, under the given mark.
struct PacketVerdict {
    std::uint16_t queueNumber = 0;
    std::uint32_t id = 0;
    std::uint32_t mark = 0;
};

class PacketQueue {
public:
    // Binds three queue numbers that nobody else uses. Fails if the kernel refuses.
    static Result<std::unique_ptr<PacketQueue>> open();
    // Packets still held are dropped by the kernel: let them go first.
    ~PacketQueue();

    const QueueNumbers& numbers() const { return queues; }

    // Becomes readable when packets come.
    int descriptor() const { return socket.descriptor(); }
    // Appends packets that are there, some dozens at most, without waiting. True if there may be
    // more.
    bool receive(std::vector<HeldPacket>& packets);

    void release(std::span<const PacketVerdict> verdicts);

private:
    struct Buffers;
    explicit PacketQueue(netlink::Socket opened);

    Result<> bindQueues();
    Result<> bindQueue(std::uint16_t number);
    void append(std::span<char> datagram, std::vector<HeldPacket>& packets);

    netlink::Socket socket;
    std::unique_ptr<Buffers> buffers;
    QueueNumbers queues;
};

}  // namespace platform::interception
