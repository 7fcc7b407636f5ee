// One outgoing connection as the simulated network carries it: the core's operations on one side, a
// scripted peer on the other. Everything that the core did with it is recorded. Any thread.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Network.h"
#include "Platform/Simulated/Scheduler.h"

namespace platform {

namespace simulated {

// How an attempt to reach a peer ends.
enum class Reachability {
    accepts,      // ready
    unreachable,  // waiting; tried again when the path changes or the peer does
    refuses,      // failed
};

// What a peer has for a connection: bytes, an end, an error, in one piece as the core may see them.
struct PeerPiece {
    std::string bytes;
    bool isComplete = false;
    std::optional<NSError> error = {};
    bool isNothing = false;  // a receive that brings neither bytes nor an end nor an error
};

}  // namespace simulated

class NWConnection::Implementation : public std::enable_shared_from_this<Implementation> {
public:
    struct Record {
        int starts = 0;
        int cancels = 0;
        int sends = 0;
        int receives = 0;
        bool wasLetGo = false;
        std::vector<State::Kind> states;  // those delivered to the handler, in order
    };

    Implementation(NWEndpoint::Host host, std::uint16_t port, NWParameters parameters);

    // The test's and the network's side.
    const std::string& host() const { return hostToReach.text(); }
    std::uint16_t port() const { return portNumber; }
    const std::optional<NWInterface>& requiredInterface() const {
        return parameters.requiredInterface;
    }
    void peerGives(simulated::PeerPiece piece);
    void peerStopsReading();
    void peerReadsOn();
    void peerEchoes();
    void failNextSend(NSError error);
    // Puts the connection into a state, as the network would.
    void enter(State::Kind kind, std::optional<NSError> error);
    // Tries to connect again if the connection waits.
    void tryAgain();
    std::string receivedByPeer() const;
    Record record() const;
    State::Kind state() const;

    // The core's side.
    void setHandler(std::function<void(const State&)> newHandler);
    void start();
    void cancel();
    void holdBack();
    void send(Data content, SendCompletion completion);
    void receive(std::size_t minimum, std::size_t maximum, ReceiveCompletion completion);
    void letGo();

private:
    using Handler = std::shared_ptr<const std::function<void(const State&)>>;
    struct PendingSend {
        Data content;
        SendCompletion completion;
    };
    struct PendingReceive {
        std::size_t minimum;
        std::size_t maximum;
        ReceiveCompletion completion;
    };

    void scheduleAttempt(double delay);
    void attempt();
    void change(State::Kind kind, std::optional<NSError> error) REQUIRES(mutex);
    void deliver(const State& newState);
    void serveSend() REQUIRES(mutex);
    void serveReceive() REQUIRES(mutex);
    bool hasEnoughFor(const PendingReceive& receive) const REQUIRES(mutex);
    simulated::PeerPiece takePiece(const PendingReceive& receive) REQUIRES(mutex);
    void completeSend(std::optional<NSError> error) REQUIRES(mutex);
    void completeReceive(std::optional<Data> data, bool isComplete, std::optional<NSError> error)
        REQUIRES(mutex);
    void failOutstanding(const NSError& error) REQUIRES(mutex);
    void completionHasRun();
    void finishCancel() REQUIRES(mutex);
    bool isOver() const REQUIRES(mutex);

    const NWEndpoint::Host hostToReach;
    const std::uint16_t portNumber;
    const NWParameters parameters;
    const simulated::Scheduler::Lane stateUpdates;

    mutable Mutex mutex;
    Record done GUARDED_BY(mutex);
    State::Kind current GUARDED_BY(mutex) = State::Kind::setup;
    Handler handler GUARDED_BY(mutex);
    bool isStarted GUARDED_BY(mutex) = false;
    bool isCancelled GUARDED_BY(mutex) = false;
    bool isHeldBack GUARDED_BY(mutex) = false;
    bool hasSentFinalState GUARDED_BY(mutex) = false;
    // Completions that are on their way: the final state comes after them.
    int completionsUnderWay GUARDED_BY(mutex) = 0;
    std::optional<PendingSend> pendingSend GUARDED_BY(mutex);
    bool isSendOutstanding GUARDED_BY(mutex) = false;
    std::optional<PendingReceive> pendingReceive GUARDED_BY(mutex);
    bool isReceiveOutstanding GUARDED_BY(mutex) = false;
    std::list<simulated::PeerPiece> fromPeer GUARDED_BY(mutex);
    bool peerReads GUARDED_BY(mutex) = true;
    bool peerReturnsBytes GUARDED_BY(mutex) = false;
    std::optional<NSError> nextSendError GUARDED_BY(mutex);
    std::string received GUARDED_BY(mutex);
};

}  // namespace platform
