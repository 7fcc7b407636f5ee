// Answers who sent a flow, and ends the socket of a flow that was dropped. The interception asks
// once a flow, while the flow's first packet waits. Any thread may call any operation; no call waits
// for another one's search, so one slow look-up holds up no other flow. It owns a few netlink
// sockets (one for each thread that is inside a call at the same time) and a bounded memory of
// sockets and owners.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Linux/Attribution/AuditToken.h"
#include "Platform/Linux/Attribution/FlowTuple.h"
#include "Platform/Linux/Attribution/SocketUsers.h"

namespace platform {

// Who sent a flow. The flow of a system account is not searched for any further: `auditToken` names
// the account with process id 0, `pid` is 0, `signingIdentifier` and `path` are empty. No rule can
// name such an account's programs, so both providers let it pass.
struct FlowOwner {
    std::string signingIdentifier;  // valid UTF-8
    AuditToken auditToken{};
    pid_t pid = 0;
    uid_t uid = 0;                   // of the socket, not as shown in the token
    std::uint64_t socketCookie = 0;  // the kernel's number for the socket, never used twice
    bool isBoundToDevice = false;    // the application pinned the socket to one interface
    std::string path;                // of the executable, as proc_pidpath shows it
};

class FlowAttribution {
public:
    // Where notes of the kernel are to be had they come first. Without them every socket is
    // searched for, and a datagram whose socket was closed behind it has no owner.
    explicit FlowAttribution(std::unique_ptr<SocketUsers> notes = SocketUsers::attach());
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
