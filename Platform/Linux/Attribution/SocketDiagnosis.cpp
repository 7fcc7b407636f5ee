#include "Platform/Linux/Attribution/SocketDiagnosis.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <utility>

#include "Platform/Linux/PlatformLog.h"

namespace platform {

namespace {

inet_diag_req_v2 questionAbout(const FlowTuple& flow) {
    inet_diag_req_v2 question{};
    question.sdiag_family = static_cast<std::uint8_t>(flow.family);
    question.sdiag_protocol = static_cast<std::uint8_t>(flow.protocol);
    question.idiag_states = ~0U;
    auto& id = question.id;
    id.idiag_sport = htons(flow.sourcePort);
    id.idiag_dport = htons(flow.destinationPort);
    std::memcpy(id.idiag_src, flow.sourceAddress.data(), flow.sourceAddress.size());
    std::memcpy(id.idiag_dst, flow.destinationAddress.data(), flow.destinationAddress.size());
    id.idiag_if = flow.outputInterface;
    id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return question;
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

SocketDiagnosis::SocketDiagnosis() {
    // One after the other fails while something is short: said once until one does not.
    static std::atomic<bool> isFailureSaid = false;
    auto opened = netlink::Socket::open(NETLINK_SOCK_DIAG);
    if (!isFailureSaid.exchange(!opened) && !opened)
        platformLog.error("The kernel can be asked about no sockets, nor to end one: %{public}s",
                          opened.error().text());
    if (!opened) return;
    // The kernel answers while the question is sent; the limit only keeps a thread from being lost.
    opened->setLongestWait(std::chrono::seconds(1));
    socket = std::move(*opened);
}

std::optional<SocketFacts> SocketDiagnosis::find(const FlowTuple& flow) {
    if (!socket) return std::nullopt;
    auto question = questionAbout(flow);
    if (flow.protocol == IPPROTO_UDP) swapEnds(question.id);
    netlink::Request request(SOCK_DIAG_BY_FAMILY, 0, question);
    std::optional<SocketFacts> facts;
    const auto asked = socket->ask(request, [&](const netlink::Message& answer) {
        const auto found = answer.fixedHeader<inet_diag_msg>();
        if (found && answer.type() == SOCK_DIAG_BY_FAMILY) facts = factsOf(*found);
    });
    return asked ? facts : std::nullopt;
}

bool SocketDiagnosis::destroy(const FlowTuple& flow, std::uint64_t cookie) {
    if (!socket) return false;
    auto question = questionAbout(flow);
    question.id.idiag_cookie[0] = static_cast<std::uint32_t>(cookie);
    question.id.idiag_cookie[1] = static_cast<std::uint32_t>(cookie >> 32);
    netlink::Request request(SOCK_DESTROY, NLM_F_ACK, question);
    return static_cast<bool>(socket->request(request));
}

}  // namespace platform
