// Our table of packet rules in the kernel: it sends the first packet of every outbound flow to a
// queue, keeps the verdicts as connection marks, redirects claimed flows to the local listeners and
// rejects denied ones. Which packet goes where, FlowTable.h says; the rules are made from it. The kernel ties the table to the netlink socket held here, so it vanishes
// with the object and with the process, however that ends. One thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/Result.h"
#include "Platform/Linux/Rules/FlowMark.h"
#include "Platform/Linux/Rules/PacketRule.h"

namespace platform::interception {

// The packet queues, by purpose.
struct QueueNumbers {
    std::uint16_t newFlows = 0;
    std::uint16_t newOverClaimed = 0;  // openings that meet a claimed connection
    std::uint16_t newOverOthers = 0;   // those that meet any other
    std::uint16_t watchedData = 0;
    std::uint16_t watchedDataOfClaimed = 0;
    std::uint16_t offeredAgain = 0;
};

// Where claimed flows are redirected to; 0 for a family that has no listener.
struct ListenerPorts {
    std::uint16_t ipv4 = 0;
    std::uint16_t ipv6 = 0;
};

// How a verdict gets into the connection's mark: by itself, where the kernel can do that, else over
// the packet's priority, from where a rule takes it at once.
enum class VerdictCarrier { connection, priority };

// The priority that carries a verdict. The packet's own is given back but for the upper half, which is
// in use with classes of traffic control that a rule of others has chosen before us.
struct VerdictPriority {
    static constexpr std::uint32_t signMask = 0xff000000;
    static constexpr std::uint32_t sign = 0x56000000;
    static constexpr unsigned shift = 16;  // of the byte
    static constexpr std::uint32_t packetsOwn = 0x0000ffff;
};

struct PacketTableContent {
    MarkPlace place{24};
    QueueNumbers queues;
    ListenerPorts listeners;
    VerdictCarrier carrier = VerdictCarrier::priority;
    unsigned generation = 0;
    // The protocols (IPPROTO_TCP, IPPROTO_UDP) whose new flows are offered to anyone at all.
    std::set<std::uint8_t> offeredProtocols;
};

// Whether the table belongs to our socket alone. Kernels before 5.12 know only shared tables, which
// others can flush and which stay behind when the process dies; with no one reading the queues
// their packets pass.
enum class TableOwnership { exclusive, shared };

class PacketTable {
public:
    // Fails if the kernel gives no socket.
    static Result<std::unique_ptr<PacketTable>> open(
        TableOwnership ownership = TableOwnership::exclusive);
    // Takes the rules away.
    ~PacketTable();

    // Puts the whole content in force in one step, in place of what was there. Fails with EBUSY while the
    // table is another program's.
    Result<> install(const PacketTableContent& content);
    // Puts in force what it takes to try a verdict on a datagram of our own, in place of the content:
    // UDP over the loopback interface that bears our mark goes to the queue, and the verdict to its
    // connection.
    Result<> installProbe(MarkPlace place, std::uint16_t queueNumber, VerdictCarrier carrier);
    // Makes `generation` the one that is not offered again; all else stays.
    Result<> setGeneration(unsigned generation);
    // Lets no further packet into the queues; what they hold can still be let go. When a table goes,
    // or another comes in its place, the kernel throws that away.
    Result<> stopOffering();
    // Takes the rules away.
    Result<> remove();

    // True if the kernel still has every rule that `install` made.
    bool isComplete();
    // How many packets have passed without a verdict since the last `install`; none if the kernel
    // does not tell.
    std::optional<std::uint64_t> passedUnseen();
    // The netlink port of our socket: changes announced with another one are not ours.
    unsigned portId() const { return socket.portId(); }

private:
    PacketTable(netlink::Socket opened, TableOwnership wanted)
        : socket(std::move(opened)), ownership(wanted) {}

    // In the form of the queue's rule that this kernel knows.
    template <class Install>
    Result<> inWorkingForm(Install install);
    std::uint32_t tableFlags() const;
    Result<> installIn(QueueForm form);
    Result<> installProbeIn(QueueForm form, MarkPlace place, std::uint16_t queueNumber,
                            VerdictCarrier carrier);

    netlink::Socket socket;
    TableOwnership ownership;
    std::optional<QueueForm> workingForm;
    PacketTableContent content;
    std::size_t ruleCount = 0;
};

}  // namespace platform::interception
