#include "Platform/Linux/Attribution/SocketAccounts.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "Platform/Linux/Netlink/Socket.h"

namespace platform {

namespace {

// The numbers of the states are those of the kernel's TCP.
enum TCPState : unsigned {
    established = 1,
    synSent = 2,
    finWait1 = 4,
    finWait2 = 5,
    closeWait = 8,
    lastAck = 9
};

constexpr unsigned bitOf(TCPState state) { return 1U << state; }

inet_diag_req_v2 questionAboutAll(int family) {
    inet_diag_req_v2 question{};
    question.sdiag_family = static_cast<std::uint8_t>(family);
    question.sdiag_protocol = IPPROTO_TCP;
    question.idiag_ext = 1U << (INET_DIAG_INFO - 1);
    question.idiag_states = bitOf(established) | bitOf(synSent) | bitOf(finWait1) |
                            bitOf(finWait2) | bitOf(closeWait) | bitOf(lastAck);
    return question;
}

constexpr std::array<std::uint8_t, 12> mappedPrefix{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

bool isMapped(const std::array<std::uint8_t, 16>& address) {
    return std::equal(mappedPrefix.begin(), mappedPrefix.end(), address.begin());
}

// The last four bytes, as an address of IPv4.
std::array<std::uint8_t, 16> unmapped(const std::array<std::uint8_t, 16>& address) {
    std::array<std::uint8_t, 16> result{};
    std::copy(address.begin() + mappedPrefix.size(), address.end(), result.begin());
    return result;
}

FlowTuple flowOf(const inet_diag_msg& message) {
    FlowTuple flow{.protocol = IPPROTO_TCP,
                   .family = message.idiag_family,
                   .sourcePort = __builtin_bswap16(message.id.idiag_sport),
                   .destinationPort = __builtin_bswap16(message.id.idiag_dport),
                   .outputInterface = message.id.idiag_if};
    std::memcpy(flow.sourceAddress.data(), message.id.idiag_src, flow.sourceAddress.size());
    std::memcpy(flow.destinationAddress.data(), message.id.idiag_dst,
                flow.destinationAddress.size());
    if (flow.family == AF_INET6 && isMapped(flow.destinationAddress)) {
        flow.family = AF_INET;
        flow.sourceAddress = unmapped(flow.sourceAddress);
        flow.destinationAddress = unmapped(flow.destinationAddress);
    }
    return flow;
}

bool staysHere(const FlowTuple& flow) {
    const auto& to = flow.destinationAddress;
    if (to == flow.sourceAddress) return true;
    if (flow.family == AF_INET) return to[0] == 127;
    constexpr std::array<std::uint8_t, 16> loopback{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return to == loopback;
}

SocketAccount accountOf(const inet_diag_msg& message, const netlink::Message& answer) {
    const auto* cookie = message.id.idiag_cookie;
    SocketAccount account{.flow = flowOf(message),
                          .cookie = std::uint64_t{cookie[1]} << 32 | cookie[0],
                          .inode = message.idiag_inode};
    const auto found = answer.attributes<inet_diag_msg>().find(INET_DIAG_INFO);
    if (!found) return account;
    // An older kernel's is shorter, a newer one's longer.
    tcp_info info{};
    const auto bytes = found->bytes();
    std::memcpy(&info, bytes.data(), std::min(bytes.size(), sizeof info));
    account.bytesSent = info.tcpi_bytes_acked;
    account.bytesReceived = info.tcpi_bytes_received;
    account.millisecondsIdle = std::min(info.tcpi_last_data_sent, info.tcpi_last_data_recv);
    return account;
}

}  // namespace

std::optional<std::vector<SocketAccount>> connectedSockets() {
    auto socket = netlink::Socket::open(NETLINK_SOCK_DIAG);
    if (!socket) return std::nullopt;
    socket->setLongestWait(std::chrono::seconds(2));
    std::vector<SocketAccount> accounts;
    for (const int family : {AF_INET, AF_INET6}) {
        netlink::Request request(SOCK_DIAG_BY_FAMILY, NLM_F_DUMP, questionAboutAll(family));
        const auto asked = socket->request(request, [&](const netlink::Message& answer) {
            const auto message = answer.fixedHeader<inet_diag_msg>();
            if (!message || answer.type() != SOCK_DIAG_BY_FAMILY) return;
            auto account = accountOf(*message, answer);
            if (!staysHere(account.flow)) accounts.push_back(std::move(account));
        });
        // Sockets that come and go meanwhile are no reason to tell of none; EINTR says so.
        if (!asked && asked.error().code() != EINTR) return std::nullopt;
    }
    return accounts;
}

}  // namespace platform
