#include "Platform/Linux/Attribution/SocketDiagnosis.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstring>
#include <utility>

namespace platform {

namespace {

struct Request {
    nlmsghdr header;
    inet_diag_req_v2 body;
};

Request requestFor(const FlowTuple& flow, std::uint16_t type, std::uint16_t flags,
                   std::uint32_t sequence) {
    Request request{};
    request.header = {sizeof request, type, static_cast<std::uint16_t>(NLM_F_REQUEST | flags),
                      sequence, 0};
    request.body.sdiag_family = static_cast<std::uint8_t>(flow.family);
    request.body.sdiag_protocol = static_cast<std::uint8_t>(flow.protocol);
    request.body.idiag_states = ~0U;
    auto& id = request.body.id;
    id.idiag_sport = htons(flow.sourcePort);
    id.idiag_dport = htons(flow.destinationPort);
    std::memcpy(id.idiag_src, flow.sourceAddress.data(), flow.sourceAddress.size());
    std::memcpy(id.idiag_dst, flow.destinationAddress.data(), flow.destinationAddress.size());
    id.idiag_if = flow.outputInterface;
    id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return request;
}

// The kernel reads the two ends of a UDP question the other way round than those of any other.
void swapEnds(inet_diag_sockid& id) {
    std::swap(id.idiag_sport, id.idiag_dport);
    std::swap(id.idiag_src, id.idiag_dst);
}

SocketFacts factsOf(const inet_diag_msg& message) {
    const auto* cookie = message.id.idiag_cookie;
    return {.cookie = std::uint64_t{cookie[1]} << 32 | cookie[0],
            .inode = message.idiag_inode,
            .uid = message.idiag_uid,
            .isBoundToDevice = message.id.idiag_if != 0,
            .hasPeer = message.id.idiag_dport != 0};
}

}  // namespace

SocketDiagnosis::SocketDiagnosis()
    : netlink(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {
    // The kernel answers while the question is sent; the limit only keeps a thread from being lost.
    const timeval limit{1, 0};
    ::setsockopt(netlink.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

std::optional<SocketFacts> SocketDiagnosis::find(const FlowTuple& flow) {
    auto request = requestFor(flow, SOCK_DIAG_BY_FAMILY, 0, ++sequence);
    if (flow.protocol == IPPROTO_UDP) swapEnds(request.body.id);
    if (exchange(&request, sizeof request) < NLMSG_LENGTH(sizeof(inet_diag_msg))) {
        return std::nullopt;
    }
    nlmsghdr header;
    std::memcpy(&header, answer, sizeof header);
    if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY) return std::nullopt;
    inet_diag_msg message;
    std::memcpy(&message, answer + NLMSG_HDRLEN, sizeof message);
    return factsOf(message);
}

bool SocketDiagnosis::destroy(const FlowTuple& flow, std::uint64_t cookie) {
    auto request = requestFor(flow, SOCK_DESTROY, NLM_F_ACK, ++sequence);
    request.body.id.idiag_cookie[0] = static_cast<std::uint32_t>(cookie);
    request.body.id.idiag_cookie[1] = static_cast<std::uint32_t>(cookie >> 32);
    if (exchange(&request, sizeof request) < NLMSG_LENGTH(sizeof(nlmsgerr))) return false;
    nlmsghdr header;
    std::memcpy(&header, answer, sizeof header);
    nlmsgerr outcome;
    std::memcpy(&outcome, answer + NLMSG_HDRLEN, sizeof outcome);
    return header.nlmsg_type == NLMSG_ERROR && outcome.error == 0;
}

std::size_t SocketDiagnosis::exchange(const void* request, std::size_t size) {
    if (::send(netlink.get(), request, size, 0) != static_cast<ssize_t>(size)) return 0;
    while (true) {
        const auto length = ::recv(netlink.get(), answer, sizeof answer, 0);
        if (length < static_cast<ssize_t>(sizeof(nlmsghdr))) return 0;
        nlmsghdr header;
        std::memcpy(&header, answer, sizeof header);
        // An answer that came too late for its own question is passed over.
        if (header.nlmsg_seq == sequence) return static_cast<std::size_t>(length);
    }
}

}  // namespace platform
