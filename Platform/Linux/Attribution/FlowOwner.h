#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Linux/Attribution/AuditToken.h"

namespace platform {

// One outbound flow as its first packet shows it, before any address translation.
struct FlowTuple {
    int protocol = 0;  // IPPROTO_TCP or IPPROTO_UDP
    int family = 0;    // AF_INET or AF_INET6: the packet's, whatever the socket's is
    std::array<std::uint8_t, 16> sourceAddress{};  // network byte order; IPv4 in the first four
    std::array<std::uint8_t, 16> destinationAddress{};  // likewise
    std::uint16_t sourcePort = 0;                       // host byte order
    std::uint16_t destinationPort = 0;                  // host byte order
    unsigned int outputInterface = 0;  // index; it finds sockets that are bound to a device
};

// Who sent a flow. A flow of a system account is not searched for any further: `auditToken` names
// the account with process id 0, `pid` is 0, `signingIdentifier` and `path` are empty.
struct FlowOwner {
    std::string signingIdentifier;  // valid UTF-8
    AuditToken auditToken{};
    pid_t pid = 0;
    uid_t uid = 0;                   // of the socket, not as shown in the token
    std::uint64_t socketCookie = 0;  // the kernel's number for the socket, never used twice
    bool isBoundToDevice = false;    // the application pinned the socket to one interface
    std::string path;                // of the executable, as proc_pidpath shows it
};

// Answers who sent a flow, and ends the socket of a flow that was dropped. The interception asks
// once a flow, while the flow's first packet waits. Any thread may call any operation; no call
// waits for another one's search, so one slow look-up holds up no other flow. It owns a few netlink
// sockets (one for each thread that is inside a call at the same time) and a bounded memory of
// sockets and owners.
class FlowAttribution {
public:
    FlowAttribution();
    ~FlowAttribution();
    FlowAttribution(const FlowAttribution&) = delete;
    FlowAttribution& operator=(const FlowAttribution&) = delete;

    // None if nobody can be named: the socket is gone and was never seen, or no process that is
    // visible here holds it. Such a flow has no token and an empty signing identifier, and passes.
    std::optional<FlowOwner> ownerOf(const FlowTuple& flow);

    // Ends the socket, so that its application fails at once and not after minutes. True if it was
    // ended. False, and nothing done, for a UDP socket without a peer (its other flows live on), for
    // a socket that is gone, and where the kernel cannot do it.
    bool destroySocket(const FlowTuple& flow);

private:
    class Search;
    std::unique_ptr<Search> search;
};

}  // namespace platform
