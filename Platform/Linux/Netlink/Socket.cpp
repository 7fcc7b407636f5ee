#include "Platform/Linux/Netlink/Socket.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace platform::netlink {

namespace {

constexpr const char* asking = "ask the kernel over netlink";

// What an acknowledgement says. Its length is the sender's choice, as that of every message.
Result<> outcomeOf(const Message& acknowledgement) {
    const auto outcome = acknowledgement.fixedHeader<nlmsgerr>();
    if (!outcome) return Error(EBADMSG, asking);
    if (outcome->error != 0) return Error(-outcome->error, asking);
    return {};
}

// A dump that breaks off says why at its end.
Result<> outcomeOfDump(const Message& end) {
    const auto error = end.fixedHeader<int>();
    if (error && *error < 0) return Error(-*error, asking);
    return {};
}

}  // namespace

Result<Socket> Socket::open(int protocol) { return open(protocol, {}); }

Result<Socket> Socket::open(int protocol, std::span<const unsigned> groups) {
    constexpr const char* doing = "open a netlink socket";
    mnl_socket* const opened = mnl_socket_open2(protocol, SOCK_CLOEXEC);
    if (!opened) return Error::last(doing);
    Socket socket(opened);
    if (mnl_socket_bind(opened, 0, MNL_SOCKET_AUTOPID) < 0) return Error::last(doing);
    for (const unsigned group : groups) {
        int number = static_cast<int>(group);
        if (mnl_socket_setsockopt(opened, NETLINK_ADD_MEMBERSHIP, &number, sizeof number) < 0)
            return Error::last(doing);
    }
    return socket;
}

bool Socket::moveTo(int descriptor) {
    if (::dup3(this->descriptor(), descriptor, O_CLOEXEC) < 0) return false;
    mnl_socket* const moved = mnl_socket_fdopen(descriptor);
    if (moved) socket.reset(moved);
    return moved != nullptr;
}

void Socket::enable(int option) {
    int on = 1;
    mnl_socket_setsockopt(socket.get(), option, &on, sizeof on);
}

void Socket::setLongestWait(std::chrono::milliseconds longest) {
    const timeval limit{longest.count() / 1000, longest.count() % 1000 * 1000};
    ::setsockopt(descriptor(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

Result<> Socket::send(Bytes messages) {
    if (mnl_socket_sendto(socket.get(), messages.data(), messages.size()) < 0)
        return Error::last(asking);
    return {};
}

Result<> Socket::sendNumbered(nlmsghdr& message) {
    message.nlmsg_seq = ++lastNumber;
    return send(
        std::as_bytes(std::span(reinterpret_cast<const char*>(&message), message.nlmsg_len)));
}

std::optional<Result<>> Socket::endOf(const Message& answer, bool isDumpSpoilt) {
    if (answer.type() == NLMSG_ERROR) return outcomeOf(answer);
    if (answer.type() == NLMSG_DONE)
        return isDumpSpoilt ? Result<>(Error(EINTR, asking)) : outcomeOfDump(answer);
    return std::nullopt;
}

Result<> Socket::transact(Bytes messages) {
    if (auto sent = send(messages); !sent) return sent;
    alignas(nlmsghdr) std::array<std::byte, largestRead> buffer;
    Result<> outcome;
    // The kernel works through the messages inside the send, so what it has to say is there now.
    for (;;) {
        const auto received = receive(buffer, Wait::no);
        if (!received) return received.error().code() == EAGAIN ? outcome : received.error();
        forEachMessage(*received, [&](const Message& answer) {
            if (answer.type() == NLMSG_ERROR && outcome) outcome = outcomeOf(answer);
        });
    }
}

Result<Bytes> Socket::receive(std::span<std::byte> buffer, Wait wait) {
    sockaddr_nl sender{};
    iovec room{buffer.data(), buffer.size()};
    msghdr header{};
    header.msg_name = &sender;
    header.msg_namelen = sizeof sender;
    header.msg_iov = &room;
    header.msg_iovlen = 1;
    ssize_t length = 0;
    do length = ::recvmsg(descriptor(), &header, wait == Wait::no ? MSG_DONTWAIT : 0);
    while (length < 0 && errno == EINTR);
    if (length < 0) {
        const bool isLate = wait == Wait::yes && errno == EAGAIN;
        return Error(isLate ? ETIMEDOUT : errno, asking);
    }
    if (!isFromKernel(header)) return Bytes();
    if ((header.msg_flags & MSG_TRUNC) != 0) return Error(EMSGSIZE, asking);
    return Bytes(buffer.data(), static_cast<std::size_t>(length));
}

void Socket::discard() {
    // Whatever was lost is thrown away too.
    std::array<std::byte, 8192> ignored;
    while (::recv(descriptor(), ignored.data(), ignored.size(), MSG_DONTWAIT) >= 0 ||
           errno == ENOBUFS || errno == EINTR) {
    }
}

bool isFromKernel(const msghdr& received) {
    constexpr std::uint32_t kernel = 0;
    const auto* const sender = static_cast<const sockaddr_nl*>(received.msg_name);
    return received.msg_namelen == sizeof(sockaddr_nl) && sender->nl_family == AF_NETLINK &&
           sender->nl_pid == kernel;
}

}  // namespace platform::netlink
