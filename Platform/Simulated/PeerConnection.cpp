#include "Platform/Simulated/PeerConnection.h"

#include <algorithm>
#include <utility>

#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/FlowBytes.h"
#include "Platform/Simulated/Machine.h"

namespace platform {

using simulated::breach;
using simulated::machine;
using simulated::PeerPiece;
using simulated::Reachability;

namespace {

NSError cancelled() { return {"posix", 89, "Operation canceled"}; }
NSError notConnected() { return {"posix", 57, "Socket is not connected"}; }
NSError unreachable() { return {"posix", 50, "Network is down"}; }
NSError refused() { return {"posix", 61, "Connection refused"}; }

}  // namespace

NWConnection::Implementation::Implementation(NWEndpoint::Host host, std::uint16_t port,
                                             NWParameters givenParameters)
    : hostToReach(std::move(host)),
      portNumber(port),
      parameters(std::move(givenParameters)),
      stateUpdates(machine().scheduler.makeLane()) {}

// The peer's side.

void NWConnection::Implementation::peerGives(PeerPiece piece) {
    const MutexGuard guard(mutex);
    fromPeer.push_back(std::move(piece));
    serveReceive();
}

void NWConnection::Implementation::peerStopsReading() {
    const MutexGuard guard(mutex);
    peerReads = false;
}

void NWConnection::Implementation::peerReadsOn() {
    const MutexGuard guard(mutex);
    peerReads = true;
    serveSend();
}

void NWConnection::Implementation::peerEchoes() {
    const MutexGuard guard(mutex);
    peerReturnsBytes = true;
}

void NWConnection::Implementation::failNextSend(NSError error) {
    const MutexGuard guard(mutex);
    nextSendError = std::move(error);
}

void NWConnection::Implementation::enter(State::Kind kind, std::optional<NSError> error) {
    const MutexGuard guard(mutex);
    if (!isStarted || isOver()) return;
    change(kind, std::move(error));
}

void NWConnection::Implementation::tryAgain() {
    {
        const MutexGuard guard(mutex);
        if (isOver() || current != State::Kind::waiting) return;
    }
    scheduleAttempt(0);
}

std::string NWConnection::Implementation::receivedByPeer() const {
    const MutexGuard guard(mutex);
    return received;
}

NWConnection::Implementation::Record NWConnection::Implementation::record() const {
    const MutexGuard guard(mutex);
    return done;
}

NWConnection::State::Kind NWConnection::Implementation::state() const {
    const MutexGuard guard(mutex);
    return current;
}

// The core's side: states.

void NWConnection::Implementation::setHandler(std::function<void(const State&)> newHandler) {
    Handler made = std::make_shared<const std::function<void(const State&)>>(std::move(newHandler));
    const MutexGuard guard(mutex);
    if (isStarted) return breach("a state handler is set on a connection that was started");
    handler.swap(made);
}

void NWConnection::Implementation::start() {
    {
        const MutexGuard guard(mutex);
        if (++done.starts > 1) return breach("a connection is started a second time");
        if (isCancelled) return;
        isStarted = true;
        change(State::Kind::preparing, std::nullopt);
    }
    machine().network.connectionStarts(shared_from_this());
    scheduleAttempt(0);
}

void NWConnection::Implementation::scheduleAttempt(double delay) {
    auto work = [self = shared_from_this()] { self->attempt(); };
    if (delay > 0)
        machine().scheduler.startTimer(delay, "connection retry", std::move(work));
    else
        machine().scheduler.deliver("connection attempt", std::move(work));
}

void NWConnection::Implementation::attempt() {
    {
        const MutexGuard guard(mutex);
        const bool isTrying = current == State::Kind::preparing || current == State::Kind::waiting;
        if (isOver() || !isTrying) return;
    }
    const auto outcome = machine().network.outcomeOfAttempt(*this);
    {
        const MutexGuard guard(mutex);
        if (isOver()) return;
        switch (outcome.reachability) {
            case Reachability::accepts:
                change(State::Kind::ready, std::nullopt);
                serveSend();
                serveReceive();
                break;
            case Reachability::unreachable:
                change(State::Kind::waiting, outcome.error.value_or(unreachable()));
                break;
            case Reachability::refuses:
                change(State::Kind::failed, outcome.error.value_or(refused()));
                break;
        }
    }
    if (outcome.retryAfter) scheduleAttempt(*outcome.retryAfter);
}

void NWConnection::Implementation::change(State::Kind kind, std::optional<NSError> error) {
    current = kind;
    State state{kind, std::move(error)};
    if (kind == State::Kind::failed) failOutstanding(state.error.value_or(notConnected()));
    machine().scheduler.deliver(
        "connection state",
        [self = shared_from_this(), newState = std::move(state)] { self->deliver(newState); },
        stateUpdates);
}

void NWConnection::Implementation::deliver(const State& newState) {
    Handler called;
    {
        const MutexGuard guard(mutex);
        called = handler;
        if (newState.kind == State::Kind::cancelled) handler.reset();
        if (called) done.states.push_back(newState.kind);
    }
    if (called && *called) (*called)(newState);
}

bool NWConnection::Implementation::isOver() const {
    return isCancelled || current == State::Kind::failed;
}

void NWConnection::Implementation::cancel() {
    const MutexGuard guard(mutex);
    ++done.cancels;
    if (std::exchange(isCancelled, true)) return;
    failOutstanding(cancelled());
    finishCancel();
}

void NWConnection::Implementation::holdBack() {
    const MutexGuard guard(mutex);
    isHeldBack = true;
}

// The final state comes when every completion has run.
void NWConnection::Implementation::finishCancel() {
    if (!isCancelled || !isStarted || hasSentFinalState || completionsUnderWay > 0) return;
    hasSentFinalState = true;
    change(State::Kind::cancelled, std::nullopt);
}

void NWConnection::Implementation::letGo() {
    Handler dropped;
    {
        const MutexGuard guard(mutex);
        done.wasLetGo = true;
        dropped.swap(handler);
        if (!std::exchange(isCancelled, true)) failOutstanding(cancelled());
    }
}

// The core's side: bytes.

void NWConnection::Implementation::send(Data content, SendCompletion completion) {
    const MutexGuard guard(mutex);
    ++done.sends;
    if (isSendOutstanding) return breach("a send is called while one is outstanding");
    isSendOutstanding = true;
    pendingSend = PendingSend{std::move(content), std::move(completion)};
    serveSend();
}

void NWConnection::Implementation::serveSend() {
    if (!pendingSend) return;
    if (isOver()) return completeSend(isCancelled ? cancelled() : notConnected());
    if (current != State::Kind::ready || isHeldBack) return;
    if (nextSendError) return completeSend(std::exchange(nextSendError, std::nullopt));
    if (!peerReads) return;
    const auto bytes = simulated::bytesOf(pendingSend->content);
    received += bytes;
    completeSend(std::nullopt);
    if (!peerReturnsBytes || bytes.empty()) return;
    fromPeer.push_back({bytes});
    serveReceive();
}

void NWConnection::Implementation::completeSend(std::optional<NSError> error) {
    ++completionsUnderWay;
    machine().scheduler.deliver("connection send", [self = shared_from_this(),
                                                    completion = std::move(pendingSend->completion),
                                                    failure = std::move(error)]() mutable {
        {
            const MutexGuard guard(self->mutex);
            self->isSendOutstanding = false;
        }
        completion(std::move(failure));
        self->completionHasRun();
    });
    pendingSend.reset();
}

void NWConnection::Implementation::receive(std::size_t minimum, std::size_t maximum,
                                           ReceiveCompletion completion) {
    const MutexGuard guard(mutex);
    ++done.receives;
    if (isReceiveOutstanding) return breach("a receive is called while one is outstanding");
    if (minimum == 0 || minimum > maximum) return breach("a receive is called with bad lengths");
    isReceiveOutstanding = true;
    pendingReceive = PendingReceive{minimum, maximum, std::move(completion)};
    serveReceive();
}

void NWConnection::Implementation::serveReceive() {
    if (!pendingReceive) return;
    if (isOver())
        return completeReceive(std::nullopt, false, isCancelled ? cancelled() : notConnected());
    if (current != State::Kind::ready || isHeldBack || !hasEnoughFor(*pendingReceive)) return;
    auto piece = takePiece(*pendingReceive);
    std::optional<Data> data;
    const bool givesEmptyBlock = machine().scheduler.takesLiberty(2);
    if (!piece.bytes.empty())
        data = simulated::makeFlowBytes(std::move(piece.bytes));
    else if (givesEmptyBlock)
        data = Data();
    completeReceive(std::move(data), piece.isComplete, std::move(piece.error));
}

bool NWConnection::Implementation::hasEnoughFor(const PendingReceive& receive) const {
    std::size_t available = 0;
    for (const auto& piece : fromPeer) {
        available += piece.bytes.size();
        const bool isLast = piece.isComplete || piece.error || piece.isNothing;
        if (isLast || available >= receive.minimum) return true;
    }
    return false;
}

// At least the minimum, at most the maximum; an end or an error only with the last of the bytes
// before it. At times fewer bytes than there are.
PeerPiece NWConnection::Implementation::takePiece(const PendingReceive& receive) {
    auto& scheduler = machine().scheduler;
    PeerPiece taken;
    while (!fromPeer.empty()) {
        auto& front = fromPeer.front();
        auto room = receive.maximum - taken.bytes.size();
        if (front.bytes.size() > 1 && scheduler.takesLiberty(4))
            room = std::min(room, static_cast<std::size_t>(1 + scheduler.draw(front.bytes.size())));
        const auto length = std::min(room, front.bytes.size());
        taken.bytes.append(front.bytes, 0, length);
        front.bytes.erase(0, length);
        if (!front.bytes.empty()) {
            if (taken.bytes.size() >= receive.minimum) return taken;
            continue;
        }
        const bool isLast = front.isComplete || front.error || front.isNothing;
        taken.isComplete = front.isComplete;
        taken.error = front.error;
        // An end and an error stay: whoever receives again meets them again.
        if (!front.isComplete && !front.error) fromPeer.pop_front();
        if (isLast || taken.bytes.size() >= receive.minimum) return taken;
    }
    return taken;
}

void NWConnection::Implementation::completeReceive(std::optional<Data> data, bool isComplete,
                                                   std::optional<NSError> error) {
    ++completionsUnderWay;
    machine().scheduler.deliver(
        "connection receive",
        [self = shared_from_this(), completion = std::move(pendingReceive->completion),
         result = std::move(data), isComplete, failure = std::move(error)]() mutable {
            {
                const MutexGuard guard(self->mutex);
                self->isReceiveOutstanding = false;
            }
            completion(std::move(result), ContentContext::defaultMessage, isComplete,
                       std::move(failure));
            self->completionHasRun();
        });
    pendingReceive.reset();
}

void NWConnection::Implementation::failOutstanding(const NSError& error) {
    if (pendingSend) completeSend(error);
    if (pendingReceive) completeReceive(std::nullopt, false, error);
}

void NWConnection::Implementation::completionHasRun() {
    const MutexGuard guard(mutex);
    --completionsUnderWay;
    finishCancel();
}

// The seam.

NWConnection::NWConnection(NWEndpoint::Host host, NWEndpoint::Port port, NWParameters parameters)
    : implementation(std::make_shared<Implementation>(std::move(host), port.rawValue(),
                                                      std::move(parameters))) {
    simulated::checkPlatformCall("NWConnection");
    machine().network.connectionIsMade(implementation);
}

NWConnection::~NWConnection() { implementation->letGo(); }

void NWConnection::setStateUpdateHandler(std::function<void(const State&)> handler) {
    simulated::checkPlatformCall("NWConnection.setStateUpdateHandler");
    implementation->setHandler(std::move(handler));
}

void NWConnection::start(DispatchQueue queue) {
    simulated::checkPlatformCall("NWConnection.start");
    if (queue.isMain()) breach("a connection is started on a queue that is not a concurrent one");
    implementation->start();
}

void NWConnection::cancel() {
    simulated::checkPlatformCall("NWConnection.cancel");
    implementation->cancel();
}

void NWConnection::holdBack() {
    simulated::checkPlatformCall("NWConnection.holdBack");
    implementation->holdBack();
}

void NWConnection::send(Data content, ContentContext, bool, SendCompletion completion) {
    simulated::checkPlatformCall("NWConnection.send");
    implementation->send(std::move(content), std::move(completion));
}

void NWConnection::receive(std::size_t minimumIncompleteLength, std::size_t maximumLength,
                           ReceiveCompletion completion) {
    simulated::checkPlatformCall("NWConnection.receive");
    implementation->receive(minimumIncompleteLength, maximumLength, std::move(completion));
}

}  // namespace platform
