// One direct connection that the kernel carries: its flow and its outgoing connection are the two ends of
// the application's own socket. No byte passes here; an opening completes at once, a connection is ready
// when the socket is established, and a read and a receive stay outstanding until the socket is over.
//
//   offered ──start──► waiting ──SYN comes again──► connecting ──► established
//      │                  │                             │               │
//      └──────────────────┴─────────── end ─────────────┴───────────────┴──► over
//
// | State       | Event                                 | Core is told           | Socket       |
// |-------------|---------------------------------------|------------------------|--------------|
// | offered     | opening fails                         | the opening's error    | -            |
// |             | start, by a way in its family         | preparing, with what   | SYN goes     |
// |             |                                       | comes next             |              |
// |             | start, a way in the other family only | failed EHOSTUNREACH    | ICMP         |
// |             | start, no way                         | waiting                | SYN dropped  |
// |             | start, the interface does not exist   | failed ENETDOWN        | denied       |
// |             | decided without a start               | -                      | denied       |
// | waiting     | SYN again, a way                      | preparing              | SYN goes,    |
// |             |                                       |                        | marked       |
// |             | SYN again, no way                     | -                      | SYN dropped  |
// |             | SYN again, no such interface any more | failed ENETDOWN        | ended before |
// | connecting  | established                           | ready                  | -            |
// | waiting, connecting | closed with an error          | failed with it         | -            |
// |             | closed by the application             | failed ECONNABORTED    | -            |
// | established | closed in order or by the application | empty read, completion | -            |
// |             | closed with an error                  | read, receive with it  | -            |
// | alive       | interface or address gone             | failed ENETDOWN        | ended before |
// |             | the core closes with an error         | -                      | ended        |
// |             | both sides closed, established        | -                      | FIN          |
// |             | both sides closed, not established    | -                      | ended        |
//
// "Alive" is each of the three in the middle. What is reported as an end is already true of the socket;
// a living one is touched only where the core began. Any thread may call anything. Callbacks run on one
// event loop, one at a time and in order, never inside a call.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Attribution/FlowTuple.h"
#include "Platform/Linux/Dispatch/EventLoop.h"
#include "Platform/Linux/Kernel/SteeredSockets.h"
#include "Platform/NEAppProxyFlow.h"
#include "Platform/Network.h"

namespace platform::steering {

// How the first packet can leave by the interface that the core requires.
struct Way {
    enum class Kind { open, otherFamilyOnly, none, gone };  // the last: with its interface
    Kind kind = Kind::none;
    unsigned number = 0;      // of the uplink; 0 if there is no such interface
    bool needsUplink = true;  // not to another network of this machine
};

// What a session does to its socket, and asks about its network. Nothing here calls back into the session.
class SessionSocket {
public:
    virtual ~SessionSocket() = default;
    // From here on events of the socket come, and its mark will be that of the uplink, if there is one; asked
    // again, that of the uplink that there is by then.
    virtual Way findWay(const std::string& interfaceName) = 0;
    // Ends the socket: its application fails at once, its peer gets a reset.
    virtual void destroy() = 0;
    // Ends the socket in order, soon.
    virtual void finish() = 0;
    // From here on no content passes.
    virtual void holdBack() = 0;
};

class SteeredSession : public std::enable_shared_from_this<SteeredSession> {
public:
    using ErrorCompletion = NEAppProxyTCPFlow::ErrorCompletion;
    using ReadCompletion = NEAppProxyTCPFlow::ReadCompletion;
    using ReceiveCompletion = NWConnection::ReceiveCompletion;
    using StateHandler = std::function<void(const NWConnection::State&)>;

    explicit SteeredSession(std::shared_ptr<SessionSocket> sessionSocket);

    // What becomes of the SYN, on its worker's thread.

    enum class Decision { steer, drop, unreachable, deny };
    struct Verdict {
        Decision decision = Decision::deny;
        unsigned number = 0;
    };
    // The proxy has claimed the flow: completes the opening, in which the core starts the connection.
    Verdict decide();
    // The SYN has come again.
    Verdict decideAgain();
    // The flow is not to be: the opening fails.
    void failOpening(const NSError& error);

    // What happens to the socket.

    void socketChanged(const SteeredSocket& seen);
    void networkLost();

    // The flow's operations.

    void open(ErrorCompletion completion);
    void read(ReadCompletion completion);
    void write(ErrorCompletion completion);
    void closeRead(const std::optional<NSError>& error);
    void closeWrite(const std::optional<NSError>& error);

    // The connection's operations.

    void setInterface(const std::string& name);
    void setStateHandler(StateHandler handler);
    void start();
    void cancel();
    void holdBack();
    void send(ErrorCompletion completion);
    void receive(ReceiveCompletion completion);

private:
    using Kind = NWConnection::State::Kind;
    enum class State { offered, waiting, connecting, established, over };
    class Turn;

    bool becomesHeldBack(const SteeredSocket& seen);
    Verdict verdict() const REQUIRES(lock);
    void follow(Way found) REQUIRES(lock);
    void end(int error, bool isTold) REQUIRES(lock);
    void fail(int error) REQUIRES(lock);
    void tell(Kind kind, int error = 0) REQUIRES(lock);
    void completeRead(const std::optional<NSError>& error) REQUIRES(lock);
    void completeReceive(bool isComplete, const std::optional<NSError>& error) REQUIRES(lock);
    void completeIfOver() REQUIRES(lock);
    // What the core's closing asks of the socket; called outside the lock.
    using Act = void (SessionSocket::*)();
    Act close(bool& side, const std::optional<NSError>& error) REQUIRES(lock);
    void deliver();

    const std::shared_ptr<SessionSocket> socket;
    EventLoop& loop = EventLoopPool::shared().currentOrNext();

    Mutex lock;
    State state GUARDED_BY(lock) = State::offered;
    Way way GUARDED_BY(lock);
    bool isStarted GUARDED_BY(lock) = false;
    // No one waits for it, and telling it by itself would wake a thread beside each verdict.
    bool isPreparingUntold GUARDED_BY(lock) = false;
    bool isCancelled GUARDED_BY(lock) = false;
    bool isHeldBack GUARDED_BY(lock) = false;
    bool isReadClosed GUARDED_BY(lock) = false;
    bool isWriteClosed GUARDED_BY(lock) = false;
    int endError GUARDED_BY(lock) = 0;  // once over: how an established connection ended
    std::string interfaceName GUARDED_BY(lock);
    std::shared_ptr<const StateHandler> stateHandler GUARDED_BY(lock);
    ErrorCompletion opening GUARDED_BY(lock);
    ReadCompletion reading GUARDED_BY(lock);
    ReceiveCompletion receiving GUARDED_BY(lock);
    // What is to be called, in order; a delivery is on its way while there is any.
    std::vector<Completion<>> news GUARDED_BY(lock);
    bool isDelivering GUARDED_BY(lock) = false;
};

// The address that a flow is to, as its remote endpoint shows it.
std::string destinationText(const FlowTuple& flow);

// The two ends, as the core holds them.
std::shared_ptr<NEAppProxyTCPFlow::Implementation> flowOf(std::shared_ptr<SteeredSession> session);
std::shared_ptr<NWConnection::Implementation> connectionOf(std::shared_ptr<SteeredSession> session);

}  // namespace platform::steering
