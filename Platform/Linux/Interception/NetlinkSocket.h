// A netlink socket to one of the kernel's subsystems, and the one conversation that most of our
// requests are: send, then read until every message is acknowledged. Its owner uses it from one
// thread at a time.
#pragma once

#include <libmnl/libmnl.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <span>

namespace platform::interception {

// Calls `visit` for each attribute behind the message's fixed header of `headerLength` bytes.
template <class Visit>
void forEachAttribute(const nlmsghdr& message, std::size_t headerLength, Visit visit) {
    const auto call = [](const nlattr* attribute, void* visitor) {
        (*static_cast<Visit*>(visitor))(*attribute);
        return MNL_CB_OK;
    };
    mnl_attr_parse(&message, static_cast<unsigned>(headerLength), call, &visit);
}

class NetlinkSocket {
public:
    // Nothing if the kernel refuses; `errno` says why. `groups` are multicast group numbers.
    static std::unique_ptr<NetlinkSocket> open(int protocol, std::span<const unsigned> groups = {});

    int descriptor() const { return mnl_socket_get_fd(socket.get()); }
    unsigned portId() const { return mnl_socket_get_portid(socket.get()); }

    // Sends one or more messages without waiting for anything. False with `errno` on failure.
    bool send(std::span<const std::byte> messages);

    using Visit = std::function<void(const nlmsghdr&)>;
    // Sends a request that asks for an acknowledgement or is a dump; shows every message of the
    // answer and returns 0 or the errno that the kernel gave.
    int request(const nlmsghdr& message, const Visit& visit = {});
    // Sends several requests in one piece. Returns the first error among the kernel's answers, or
    // 0.
    int transact(std::span<const std::byte> messages);

private:
    struct Close {
        void operator()(mnl_socket* open) const { mnl_socket_close(open); }
    };
    explicit NetlinkSocket(mnl_socket* open) : socket(open) {}

    std::unique_ptr<mnl_socket, Close> socket;
};

}  // namespace platform::interception
