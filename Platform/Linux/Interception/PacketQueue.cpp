#include "Platform/Linux/Interception/PacketQueue.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace platform::interception {

namespace {

constexpr std::uint32_t copiedBytes = 128;  // all headers, and no payload to speak of
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

std::uint32_t number32(const nlattr* attribute) {
    return attribute ? ntohl(mnl_attr_get_u32(attribute)) : 0;
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

    alignas(nlmsghdr) std::array<std::array<char, 640>, packetsAtOnce> datagrams{};
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
    const std::array<std::uint16_t*, 3> wanted{&queues.newFlows, &queues.watchedData,
                                               &queues.offeredAgain};
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
    if (const auto bound = socket.transact(bytesOf(buffer)); !bound) return bound;

    nlmsghdr* const configure = nfq_nlmsg_put(buffer.data(), NFQNL_MSG_CONFIG, number);
    configure->nlmsg_flags |= NLM_F_ACK;
    nfq_nlmsg_cfg_put_params(configure, NFQNL_COPY_PACKET, copiedBytes);
    nfq_nlmsg_cfg_put_qmaxlen(configure, longestQueue);
    const std::uint32_t flags = NFQA_CFG_F_GSO | NFQA_CFG_F_UID_GID | NFQA_CFG_F_FAIL_OPEN;
    mnl_attr_put_u32(configure, NFQA_CFG_FLAGS, htonl(flags));
    mnl_attr_put_u32(configure, NFQA_CFG_MASK, htonl(flags));
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
    int length = static_cast<int>(datagram.size());
    for (const auto* message = reinterpret_cast<const nlmsghdr*>(datagram.data());
         mnl_nlmsg_ok(message, length); message = mnl_nlmsg_next(message, &length)) {
        // The refusal of a verdict that came after its packet had gone.
        if (message->nlmsg_type == NLMSG_ERROR) continue;
        std::array<nlattr*, NFQA_MAX + 1> attributes{};
        if (nfq_nlmsg_parse(message, attributes.data()) < 0 || !attributes[NFQA_PACKET_HDR])
            continue;
        const auto* const about = static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(message));
        const auto* const header = static_cast<const nfqnl_msg_packet_hdr*>(
            mnl_attr_get_payload(attributes[NFQA_PACKET_HDR]));
        HeldPacket packet;
        packet.queueNumber = ntohs(about->res_id);
        packet.purpose = packet.queueNumber == queues.newFlows      ? PacketPurpose::newFlow
                         : packet.queueNumber == queues.watchedData ? PacketPurpose::watchedData
                                                                    : PacketPurpose::offeredAgain;
        packet.id = ntohl(header->packet_id);
        packet.mark = number32(attributes[NFQA_MARK]);
        packet.flow.outputInterface = number32(attributes[NFQA_IFINDEX_OUTDEV]);
        bool isReadable = false;
        if (const nlattr* const payload = attributes[NFQA_PAYLOAD]) {
            const std::span bytes(static_cast<const std::uint8_t*>(mnl_attr_get_payload(payload)),
                                  mnl_attr_get_payload_len(payload));
            const std::uint32_t cutFrom = number32(attributes[NFQA_CAP_LEN]);
            isReadable = readHeaders(bytes, cutFrom != 0 ? cutFrom : bytes.size(), packet);
        }
        if (isReadable) {
            packets.push_back(packet);
        } else {
            const PacketVerdict letGo{packet.queueNumber, packet.id, packet.mark};
            release({&letGo, 1});
        }
    }
}

void PacketQueue::release(std::span<const PacketVerdict> verdicts) {
    constexpr std::size_t atOnce = 32;
    constexpr std::size_t room = 64;  // a verdict with a mark takes 44 bytes
    while (!verdicts.empty()) {
        alignas(nlmsghdr) std::array<char, atOnce * room> buffer{};
        std::size_t used = 0;
        for (const PacketVerdict& verdict : verdicts.first(std::min(atOnce, verdicts.size()))) {
            nlmsghdr* const header =
                nfq_nlmsg_put(buffer.data() + used, NFQNL_MSG_VERDICT, verdict.queueNumber);
            nfq_nlmsg_verdict_put(header, static_cast<int>(verdict.id), NF_ACCEPT);
            nfq_nlmsg_verdict_put_mark(header, verdict.mark);
            used += header->nlmsg_len;
        }
        // The kernel refuses none but those of packets that have gone meanwhile.
        static_cast<void>(socket.send(std::as_bytes(std::span(buffer).first(used))));
        verdicts = verdicts.subspan(std::min(atOnce, verdicts.size()));
    }
}

}  // namespace platform::interception
