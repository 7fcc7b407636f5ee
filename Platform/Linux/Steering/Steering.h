// Direct connections, carried by the kernel: the application's own connection leaves by the physical
// interface, as `docs/architecture.md` says. This holds what that takes in the kernel (routes, packet
// rules, programs), knows the session of each steered socket, and tells it what happens to the socket. One
// thread of its own reads the kernel's events and keeps routes and rules as they should be; any thread
// may offer.
//
// A worker may be deciding on a flow when steering ends, at a stop or because the marks' byte moves, and the
// core's sessions may outlive it. Nothing depends on that, as the end is a step of its own: `end`.
//
// | Event                                      | serving            | ending, and after the end              |
// |--------------------------------------------|--------------------|----------------------------------------|
// | a flow is claimed                          | its session enters | the opening fails, the SYN is dropped: |
// |                                            |                    | it comes again as a new flow           |
// | its way is asked for, by `start` or again  | followed, found    | gone: the session fails, denied        |
// | decided; its claim was ended meanwhile     | -                  | denied                                 |
// | a known SYN comes again                    | its session's word | unknown                                |
// | a session's socket ends or is established  | its session hears  | it has been told of the end            |
// | the core closes with an error              | socket ended       | socket ended, if it was not yet        |
// | the core closes in order                   | farewell           | - (the socket has ended)               |
// | a datagram's way is asked for              | found              | none: dropped                          |
//
// The end: 1. no claim is taken any more, and the thread ends; 2. each session's socket is ended, and then the
// session told; 3. farewells that wait are cut short; 4. entries of steered datagrams go; 5. the packet
// rules go, so that no packet gets a mark; 6. what marks lead to: IPsec policies, routes, settings of the
// reverse-path filter. The programs in the kernel, which have no entries then, go with the last session.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <thread>

#include "Platform/Linux/CarriedEnds.h"
#include "Platform/Linux/Packets/HeldPacket.h"
#include "Platform/Linux/Result.h"
#include "Platform/Linux/Rules/SteeringMarks.h"
#include "Platform/Linux/Steering/SteeredSession.h"

namespace platform::steering {

class Steering {
public:
    using Verdict = SteeredSession::Verdict;
    class Offer;

    // Puts all that is needed in force. What an earlier process steered is ended, as the rules may have
    // changed since. Fails where the kernel cannot steer, and leaves nothing then.
    static Result<std::unique_ptr<Steering>> start(MarkPlace place);
    ~Steering() { end(); }
    Steering(const Steering&) = delete;
    Steering& operator=(const Steering&) = delete;

    // Ends the connections that are left, and takes everything away: another one may start then, even if a worker
    // still holds this one. The owner's thread.
    void end();

    MarkPlace place() const;

    // The verdict on the SYN of a connection that was decided before and sends it again; none for any
    // other. `cookie` is the socket's.
    std::optional<Verdict> verdictOnKnown(const interception::HeldPacket& packet,
                                          std::uint64_t cookie);

    // A flow that is about to be offered to the proxy.
    std::unique_ptr<Offer> offer(const interception::HeldPacket& packet, std::uint64_t cookie);

    // Whether a datagram may be steered at all: not what stays on the link, nor a name look-up, whose
    // server may be the VPN's alone.
    static bool isForDatagrams(const FlowTuple& flow);
    // How the application's datagrams leave by that interface.
    Way wayOfDatagrams(const FlowTuple& flow, const std::string& interfaceName);
    // The next datagram of each flow that was steered is the first of a new one. Counts as a change, as one of the
    // uplinks does.
    void forgetDatagrams();
    // How often the ways of datagrams have changed. Any thread.
    std::uint64_t wayChanges() const;

    // Waits until connections that were ended in order have told their ends, or for so long.
    void awaitEnds(std::chrono::milliseconds longest);

private:
    class Socket;
    class Work;

    explicit Steering(std::shared_ptr<Work> begun);

    const std::shared_ptr<Work> work;
    std::thread thread;
};

// For one worker, while it decides on the flow's first packet.
class Steering::Offer {
public:
    Offer(std::shared_ptr<Work> steeringWork, const interception::HeldPacket& packet,
          std::shared_ptr<Socket> offeredSocket);

    // Made before the proxy is asked, and gone when it has answered: what the proxy makes meanwhile to
    // carry the flow is this session's.
    class Pairing final : public OfferInProgress {
    public:
        explicit Pairing(Offer& inProgress) : offer(inProgress) {}

    private:
        std::shared_ptr<NWConnection::Implementation> pairWith(
            const std::string& host, std::uint16_t port, const NWParameters& parameters) override;

        Offer& offer;
    };

    std::shared_ptr<NEAppProxyTCPFlow::Implementation> flow() const { return flowOf(session); }

    // The proxy has claimed the flow and no one forbids it. `kept` goes when its connection is over.
    Verdict claim(std::shared_ptr<void> kept);
    // The proxy has claimed it in vain.
    void refuse(const NSError& error) { session->failOpening(error); }

private:
    const std::shared_ptr<Work> work;
    const std::shared_ptr<Socket> socket;
    const std::shared_ptr<SteeredSession> session;
    const FlowTuple flowTuple;
};

}  // namespace platform::steering
