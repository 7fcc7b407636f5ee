// Answers who sent a flow, and ends the socket of a flow that was dropped. The interception asks
// once a flow, while the flow's first packet waits. Any thread may call any operation; no call waits
// for another one's search, so one slow look-up holds up no other flow.
//
// Who it was is known from the kernel's notes (SocketNotes): one or two questions for a flow of a
// program that is known. Where there are no notes, or none of this socket, the kernel is asked for the
// socket and /proc searched for the process that holds it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Linux/Attribution/AuditToken.h"
#include "Platform/Linux/Attribution/FlowTuple.h"
#include "Platform/Linux/Attribution/ProcessTable.h"
#include "Platform/Linux/Attribution/SocketNotes.h"
#include "Platform/NEAppProxyFlow.h"

namespace platform {

// Who sent a flow. A program of a system account that is no application by itself stays unnamed, as no
// rule concerns it: `auditToken` names the account with process id 0, `pid` is 0, `signingIdentifier`
// and `path` are empty, and both providers let it pass.
struct FlowOwner {
    std::string signingIdentifier;  // valid UTF-8
    AuditToken auditToken{};
    pid_t pid = 0;
    uid_t uid = 0;                   // of the program or the socket, not as shown in the token
    std::uint64_t socketCookie = 0;  // the kernel's number for the socket, never used twice
    bool isBoundToDevice = false;    // the application pinned the socket to one interface
    bool isGivenUp = false;          // of TCP: the application has closed the socket
    std::string path;                // of the executable, as proc_pidpath shows it
};

// The owner of a flow that this process would make now, by a socket of its own.
FlowOwner ownerOfProcess(const Process& process);

// As both providers are shown it.
NEFlowMetaData metaDataOf(const FlowOwner& owner);

class FlowAttribution {
public:
    // Without notes every socket is searched for, and a packet whose socket was closed already has
    // no owner.
    explicit FlowAttribution(std::unique_ptr<SocketNotes> notes = SocketNotes::attach());
    ~FlowAttribution();
    FlowAttribution(const FlowAttribution&) = delete;
    FlowAttribution& operator=(const FlowAttribution&) = delete;

    // None if no one can be named: the socket is gone and was never seen, or no process that is
    // visible here holds it. Such a flow has no token and an empty signing identifier, and passes.
    std::optional<FlowOwner> ownerOf(const FlowTuple& flow);

    // The kernel's number for the socket that the flow comes from, in a question or two. None if there
    // is none any more.
    std::optional<std::uint64_t> cookieOf(const FlowTuple& flow);

    // Ends the socket, so that its application fails at once and not after minutes. True if it was
    // ended. False, and nothing done, for a UDP socket without a peer (its other flows live on), for
    // a socket that is gone, and where the kernel cannot do it.
    bool destroySocket(const FlowTuple& flow);

    // True if the kernel's notes are at work, false if every socket is searched for.
    bool hasNotes() const;

    // Forgets what is over. To be called every few seconds.
    void keepHouse();

private:
    class Search;
    std::unique_ptr<Search> search;
};

}  // namespace platform
