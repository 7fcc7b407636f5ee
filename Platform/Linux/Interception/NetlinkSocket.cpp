#include "Platform/Linux/Interception/NetlinkSocket.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

namespace platform::interception {

namespace {

constexpr std::size_t largestMessage = 64 * 1024;

// The errno that an acknowledgement carries, 0 for success.
int errorOf(const nlmsghdr& message) {
    return -static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(&message))->error;
}

}  // namespace

std::unique_ptr<NetlinkSocket> NetlinkSocket::open(int protocol, std::span<const unsigned> groups) {
    mnl_socket* const opened = mnl_socket_open2(protocol, SOCK_CLOEXEC);
    if (!opened) return nullptr;
    std::unique_ptr<NetlinkSocket> result(new NetlinkSocket(opened));
    if (mnl_socket_bind(opened, 0, MNL_SOCKET_AUTOPID) < 0) return nullptr;
    for (const unsigned group : groups) {
        int number = static_cast<int>(group);
        if (mnl_socket_setsockopt(opened, NETLINK_ADD_MEMBERSHIP, &number, sizeof number) < 0)
            return nullptr;
    }
    return result;
}

bool NetlinkSocket::send(std::span<const std::byte> messages) {
    return mnl_socket_sendto(socket.get(), messages.data(), messages.size()) >= 0;
}

int NetlinkSocket::request(const nlmsghdr& message, const Visit& visit) {
    if (!send(std::as_bytes(std::span(reinterpret_cast<const char*>(&message), message.nlmsg_len))))
        return errno;
    alignas(nlmsghdr) std::array<char, largestMessage> buffer;
    for (;;) {
        const auto received = mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size());
        if (received < 0) return errno;
        int length = static_cast<int>(received);
        for (auto* answer = reinterpret_cast<const nlmsghdr*>(buffer.data());
             mnl_nlmsg_ok(answer, length); answer = mnl_nlmsg_next(answer, &length)) {
            if (answer->nlmsg_seq != message.nlmsg_seq) continue;
            if (answer->nlmsg_type == NLMSG_DONE) return 0;
            if (answer->nlmsg_type == NLMSG_ERROR) return errorOf(*answer);
            if (visit) visit(*answer);
        }
    }
}

int NetlinkSocket::transact(std::span<const std::byte> messages) {
    if (!send(messages)) return errno;
    alignas(nlmsghdr) std::array<char, largestMessage> buffer;
    int firstError = 0;
    // The kernel works through the messages inside the send, so what it has to say is there now.
    for (;;) {
        const auto received = recv(descriptor(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (received < 0) return errno == EAGAIN ? firstError : errno;
        int length = static_cast<int>(received);
        for (auto* answer = reinterpret_cast<const nlmsghdr*>(buffer.data());
             mnl_nlmsg_ok(answer, length); answer = mnl_nlmsg_next(answer, &length)) {
            if (answer->nlmsg_type == NLMSG_ERROR && firstError == 0) firstError = errorOf(*answer);
        }
    }
}

}  // namespace platform::interception
