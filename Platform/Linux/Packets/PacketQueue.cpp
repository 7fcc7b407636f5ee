// The kernel's own description comes first: the library brings an older copy.
#include <linux/netfilter/nfnetlink_queue.h>

#include "Platform/Linux/Packets/PacketQueue.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace platform::interception {

namespace {

// All headers, a prescribed way over two dozen stops among them.
constexpr std::uint32_t copiedBytes = 512;
constexpr std::size_t roomForPacket = copiedBytes + 512;
constexpr std::uint32_t longestQueue = 8192;
constexpr int receiveBufferSize = 16 * 1024 * 1024;
constexpr std::size_t packetsAtOnce = 32;
constexpr std::uint16_t firstNumber = 7660;
constexpr std::uint16_t lastNumber = 7960;

template <std::size_t size>
std::span<const std::byte> bytesOf(const std::array<char, size>& buffer) {
    const auto* const header = reinterpret_cast<const nlmsghdr*>(buffer.data());
    return std::as_bytes(std::span(buffer.data(), header->nlmsg_len));
}

void putCommand(nlmsghdr* header, nfqnl_msg_config_cmds command) {
    nfq_nlmsg_cfg_put_cmd(header, AF_UNSPEC, static_cast<std::uint8_t>(command));
}

std::optional<std::uint32_t> number32(const netlink::Attributes& attributes, std::uint16_t type) {
    const auto attribute = attributes.find(type);
    return attribute ? attribute->networkNumber<std::uint32_t>() : std::nullopt;
}

void putVerdict(nlmsghdr* header, const PacketVerdict& verdict, VerdictCarrier by,
                MarkPlace place) {
    const std::uint32_t byte = verdict.connectionByte.value_or(0);
    if (by == VerdictCarrier::connection) {
        nlattr* const connection = mnl_attr_nest_start(header, NFQA_CT);
        mnl_attr_put_u32(header, CTA_MARK, htonl(byte << place.shift()));
        mnl_attr_put_u32(header, CTA_MARK_MASK, htonl(place.mask()));
        mnl_attr_nest_end(header, connection);
        return;
    }
    const std::uint32_t carried = byte << VerdictPriority::shift;
    mnl_attr_put_u32(
        header, NFQA_PRIORITY,
        htonl(VerdictPriority::sign | carried | (verdict.priority & VerdictPriority::packetsOwn)));
}

}  // namespace

struct PacketQueue::Buffers {
    Buffers() {
        for (std::size_t index = 0; index < packetsAtOnce; ++index) {
            vectors[index] = {datagrams[index].data(), datagrams[index].size()};
            headers[index].msg_hdr.msg_iov = &vectors[index];
            headers[index].msg_hdr.msg_iovlen = 1;
        }
    }

    alignas(nlmsghdr) std::array<std::array<char, roomForPacket>, packetsAtOnce> datagrams{};
    std::array<iovec, packetsAtOnce> vectors{};
    std::array<mmsghdr, packetsAtOnce> headers{};
};

PacketQueue::PacketQueue(netlink::Socket opened)
    : socket(std::move(opened)), buffers(std::make_unique<Buffers>()) {}

PacketQueue::~PacketQueue() = default;

Result<std::unique_ptr<PacketQueue>> PacketQueue::open() {
    auto socket = netlink::Socket::open(NETLINK_NETFILTER);
    if (!socket) return socket.error();
    socket->enable(NETLINK_NO_ENOBUFS);
    setsockopt(socket->descriptor(), SOL_SOCKET, SO_RCVBUFFORCE, &receiveBufferSize,
               sizeof receiveBufferSize);
    std::unique_ptr<PacketQueue> queue(new PacketQueue(std::move(*socket)));
    if (const auto bound = queue->bindQueues(); !bound) return bound.error();
    return queue;
}

Result<> PacketQueue::bindQueues() {
    const std::array<std::uint16_t*, 6> wanted{
        &queues.newFlows,    &queues.newOverClaimed,       &queues.newOverOthers,
        &queues.watchedData, &queues.watchedDataOfClaimed, &queues.offeredAgain};
    std::uint16_t number = firstNumber;
    for (std::uint16_t* const queue : wanted) {
        Result<> bound = Error(EBUSY, "find a free packet queue");
        while (!bound) {
            // Taken numbers are refused in either of these ways.
            const int reason = bound.error().code();
            const bool isTaken = reason == EBUSY || reason == EPERM;
            if (!isTaken || number == lastNumber) return bound;
            *queue = number++;
            bound = bindQueue(*queue);
        }
    }
    return {};
}

Result<> PacketQueue::bindQueue(std::uint16_t number) {
    alignas(nlmsghdr) std::array<char, 256> buffer{};
    nlmsghdr* const bind = nfq_nlmsg_put(buffer.data(), NFQNL_MSG_CONFIG, number);
    bind->nlmsg_flags |= NLM_F_ACK;
    putCommand(bind, NFQNL_CFG_CMD_BIND);
    if (auto bound = socket.transact(bytesOf(buffer)); !bound) return bound;

    nlmsghdr* const configure = nfq_nlmsg_put(buffer.data(), NFQNL_MSG_CONFIG, number);
    configure->nlmsg_flags |= NLM_F_ACK;
    nfq_nlmsg_cfg_put_params(configure, NFQNL_COPY_PACKET, copiedBytes);
    nfq_nlmsg_cfg_put_qmaxlen(configure, longestQueue);
    const std::uint32_t flags = NFQA_CFG_F_GSO | NFQA_CFG_F_UID_GID | NFQA_CFG_F_FAIL_OPEN;
    mnl_attr_put_u32(configure, NFQA_CFG_FLAGS, htonl(flags));
    mnl_attr_put_u32(configure, NFQA_CFG_MASK, htonl(flags));
    return socket.transact(bytesOf(buffer));
}

bool PacketQueue::prepareConnectionMarks() {
    // The flag itself is of no use here; setting it loads the module, after which it has to be set again.
    Result<> set = setConnectionFlag(true);
    if (!set && set.error().code() == EAGAIN) set = setConnectionFlag(true);
    return set && setConnectionFlag(false);
}

Result<> PacketQueue::setConnectionFlag(bool isOn) {
    alignas(nlmsghdr) std::array<char, 256> buffer{};
    nlmsghdr* const configure = nfq_nlmsg_put(buffer.data(), NFQNL_MSG_CONFIG, queues.newFlows);
    configure->nlmsg_flags |= NLM_F_ACK;
    const std::uint32_t flag = NFQA_CFG_F_CONNTRACK;
    mnl_attr_put_u32(configure, NFQA_CFG_FLAGS, htonl(isOn ? flag : 0));
    mnl_attr_put_u32(configure, NFQA_CFG_MASK, htonl(flag));
    return socket.transact(bytesOf(buffer));
}

bool PacketQueue::receive(std::vector<HeldPacket>& packets) {
    const int received = recvmmsg(socket.descriptor(), buffers->headers.data(), packetsAtOnce,
                                  MSG_DONTWAIT, nullptr);
    if (received < 0) return errno == EINTR || errno == ENOBUFS;
    const auto count = static_cast<std::size_t>(received);
    for (std::size_t index = 0; index < count; ++index) {
        const std::size_t length = buffers->headers[index].msg_len;
        append(std::span(buffers->datagrams[index]).first(length), packets);
    }
    return count == packetsAtOnce;
}

void PacketQueue::append(std::span<char> datagram, std::vector<HeldPacket>& packets) {
    netlink::forEachMessage(std::as_bytes(datagram), [&](const netlink::Message& message) {
        // The refusal of a verdict that came after its packet had gone.
        if (message.type() == NLMSG_ERROR) return;
        const auto about = message.fixedHeader<nfgenmsg>();
        if (about) append(ntohs(about->res_id), message.attributes<nfgenmsg>(), packets);
    });
}

void PacketQueue::append(std::uint16_t number, const netlink::Attributes& attributes,
                         std::vector<HeldPacket>& packets) {
    const auto header = attributes.find(NFQA_PACKET_HDR);
    const auto description = header ? header->record<nfqnl_msg_packet_hdr>() : std::nullopt;
    if (!description) return;
    HeldPacket packet;
    packet.queueNumber = number;
    packet.id = ntohl(description->packet_id);
    const auto isFrom = [number](std::uint16_t queue) { return number == queue; };
    packet.isOfClaimed = isFrom(queues.newOverClaimed) || isFrom(queues.watchedDataOfClaimed);
    packet.meetsEntry = !isFrom(queues.newFlows);
    if (isFrom(queues.watchedData) || isFrom(queues.watchedDataOfClaimed))
        packet.purpose = PacketPurpose::watchedData;
    else if (isFrom(queues.offeredAgain))
        packet.purpose = PacketPurpose::offeredAgain;
    packet.priority = number32(attributes, NFQA_PRIORITY).value_or(0);
    packet.account = number32(attributes, NFQA_UID).value_or(HeldPacket::noAccount);
    packet.flow.outputInterface = number32(attributes, NFQA_IFINDEX_OUTDEV).value_or(0);
    bool isReadable = false;
    if (const auto payload = attributes.find(NFQA_PAYLOAD)) {
        const auto bytes = payload->bytes();
        const std::span read(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
        const auto cutFrom = number32(attributes, NFQA_CAP_LEN);
        isReadable = readHeaders(read, cutFrom ? *cutFrom : bytes.size(), packet);
    }
    if (isReadable) {
        packets.push_back(packet);
    } else {
        const PacketVerdict unread = PacketVerdict::pass(packet);
        release({&unread, 1});
    }
}

void PacketQueue::release(std::span<const PacketVerdict> verdicts) {
    constexpr std::size_t atOnce = 32;
    constexpr std::size_t room = 64;  // a verdict with a mark takes 56 bytes
    const VerdictCarrier by = carrier;
    const MarkPlace inPlace = place;
    while (!verdicts.empty()) {
        alignas(nlmsghdr) std::array<char, atOnce * room> buffer{};
        std::size_t used = 0;
        for (const PacketVerdict& verdict : verdicts.first(std::min(atOnce, verdicts.size()))) {
            nlmsghdr* const header =
                nfq_nlmsg_put(buffer.data() + used, NFQNL_MSG_VERDICT, verdict.queueNumber);
            nfq_nlmsg_verdict_put(header, static_cast<int>(verdict.id),
                                  verdict.isDropped ? NF_DROP : NF_ACCEPT);
            if (verdict.connectionByte) putVerdict(header, verdict, by, inPlace);
            used += header->nlmsg_len;
        }
        // The kernel refuses none but those of packets that have gone meanwhile.
        static_cast<void>(socket.send(std::as_bytes(std::span(buffer).first(used))));
        verdicts = verdicts.subspan(std::min(atOnce, verdicts.size()));
    }
}

}  // namespace platform::interception
