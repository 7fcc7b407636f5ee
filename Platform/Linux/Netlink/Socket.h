// A netlink socket to one of the kernel's subsystems, for everything here that speaks netlink. What
// anyone but the kernel sends to it is passed over. Its owner uses it from one thread at a time.
#pragma once

#include <libmnl/libmnl.h>
#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "Platform/Linux/Netlink/Message.h"
#include "Platform/Linux/Result.h"

namespace platform::netlink {

// True if a message that `recvmsg` or `recvmmsg` took in, with room for its sender in `msg_name`, is
// the kernel's. For whoever reads the descriptor without the operations below.
bool isFromKernel(const msghdr& received);

class Socket {
public:
    // Asks the kernel for an answer; `protocol` is one of NETLINK_ROUTE, NETLINK_NETFILTER, ...
    static Result<Socket> open(int protocol);
    // Also hears what the kernel tells the multicast groups of these numbers.
    static Result<Socket> open(int protocol, std::span<const unsigned> groups);

    // Puts the socket in the place of an open descriptor. False, and it stays where it is, if that fails.
    bool moveTo(int descriptor);

    int descriptor() const { return mnl_socket_get_fd(socket.get()); }
    unsigned portId() const { return mnl_socket_get_portid(socket.get()); }

    // An option of level SOL_NETLINK that is on or off, such as NETLINK_NO_ENOBUFS. Kernels that
    // don't know it go on without.
    void enable(int option);
    // A request then fails with ETIMEDOUT when the kernel has said nothing for so long.
    void setLongestWait(std::chrono::milliseconds longest);

    // Sends a request that asks for an acknowledgement, for one object or for a dump; shows every
    // message of the answer to `visit(const Message&)`. Fails with what the kernel gave. EINTR: what
    // was dumped changed meanwhile, so that the answers may not belong together.
    template <class Visit>
    Result<> request(Request& message, Visit&& visit) {
        if (!message.isWhole()) return Error(EMSGSIZE, "send a netlink message");
        return request(*message.message(), visit);
    }
    Result<> request(Request& message) {
        return request(message, [](const Message&) {});
    }
    // The same for a message that a library made. The number that tells its answers from others is
    // set here.
    template <class Visit>
    Result<> request(nlmsghdr& message, Visit&& visit) {
        return converse(message, visit, false);
    }

    // Sends a request that is answered by one message without an acknowledgement, and shows that.
    template <class Visit>
    Result<> ask(Request& message, Visit&& visit) {
        if (!message.isWhole()) return Error(EMSGSIZE, "send a netlink message");
        return converse(*message.message(), visit, true);
    }

    // Sends several messages in one piece, which the kernel works through at once. Fails with the
    // first error in its answers.
    Result<> transact(Bytes messages);

    // Sends one or more messages without waiting for anything.
    Result<> send(Bytes messages);

    // One read of what is there, or comes, into `buffer`. Empty if it was not the kernel's. Fails with
    // EAGAIN if nothing is there, with ENOBUFS if the kernel had more to tell than there was room for.
    enum class Wait : bool { no, yes };
    Result<Bytes> receive(std::span<std::byte> buffer, Wait wait);

    // Throws away all that is waiting.
    void discard();

    // Room for what one read of a dump gives.
    static constexpr std::size_t largestRead = 64 * 1024;

private:
    struct Close {
        void operator()(mnl_socket* open) const { mnl_socket_close(open); }
    };
    explicit Socket(mnl_socket* open) : socket(open) {}
    template <class Visit>
    Result<> converse(nlmsghdr& message, Visit& visit, bool firstAnswerIsAll);
    Result<> sendNumbered(nlmsghdr& message);
    // How the conversation ended; null if the message is a part of the answer.
    static std::optional<Result<>> endOf(const Message& answer, bool isDumpSpoilt);

    std::unique_ptr<mnl_socket, Close> socket;
    std::uint32_t lastNumber = 0;
};

template <class Visit>
Result<> Socket::converse(nlmsghdr& message, Visit& visit, bool firstAnswerIsAll) {
    if (auto sent = sendNumbered(message); !sent) return sent;
    alignas(nlmsghdr) std::array<std::byte, largestRead> buffer;
    std::optional<Result<>> end;
    bool isSpoilt = false;
    while (!end) {
        const auto received = receive(buffer, Wait::yes);
        if (!received) return received.error();
        forEachMessage(*received, [&](const Message& answer) {
            if (end || answer.header().nlmsg_seq != message.nlmsg_seq) return;
            isSpoilt |= (answer.header().nlmsg_flags & NLM_F_DUMP_INTR) != 0;
            end = endOf(answer, isSpoilt);
            if (end) return;
            visit(answer);
            if (firstAnswerIsAll) end.emplace();
        });
    }
    return *end;
}

}  // namespace platform::netlink
