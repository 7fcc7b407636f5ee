#include "Platform/Linux/Steering/SteeredSession.h"

#include <arpa/inet.h>

#include <array>
#include <cerrno>
#include <utility>

#include "Platform/Linux/SystemError.h"

namespace platform::steering {

std::string destinationText(const FlowTuple& flow) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    ::inet_ntop(flow.family, flow.destinationAddress.data(), text.data(), text.size());
    return text.data();
}

namespace {

std::optional<NSError> errorOf(int error) {
    return error == 0 ? std::nullopt : std::optional(systemError(error));
}

}  // namespace

// Holds the lock; what is new at its end is delivered, in the order in which it came.
class SCOPED_CAPABILITY SteeredSession::Turn {
public:
    explicit Turn(SteeredSession& of) ACQUIRE(of.lock) : session(of) { session.lock.lock(); }
    ~Turn() RELEASE() {
        const bool isFirst = !session.news.empty() && !std::exchange(session.isDelivering, true);
        session.lock.unlock();
        if (isFirst) session.loop.post([held = session.shared_from_this()] { held->deliver(); });
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

private:
    SteeredSession& session;
};

SteeredSession::SteeredSession(std::shared_ptr<SessionSocket> sessionSocket)
    : socket(std::move(sessionSocket)) {}

void SteeredSession::deliver() {
    for (;;) {
        std::vector<Completion<>> present;
        {
            const MutexGuard guard(lock);
            isDelivering = !news.empty();
            if (!isDelivering) return;
            present.swap(news);
        }
        for (auto& each : present) each();
    }
}

SteeredSession::Verdict SteeredSession::decide() {
    ErrorCompletion toComplete;
    {
        const MutexGuard guard(lock);
        toComplete = std::exchange(opening, {});
    }
    // The core starts the connection in here.
    if (toComplete) toComplete(std::nullopt);
    const Turn turn(*this);
    // One that is started from now on comes too late.
    if (!isStarted) end(ECONNABORTED, false);
    return verdict();
}

SteeredSession::Verdict SteeredSession::decideAgain() {
    std::string name;
    {
        const MutexGuard guard(lock);
        if (state != State::waiting) return verdict();
        name = interfaceName;
    }
    const Way found = socket->findWay(name);
    const bool isGone = found.kind == Way::Kind::gone;
    if (isGone) socket->destroy();
    const Turn turn(*this);
    if (state == State::waiting && isGone) fail(ENETDOWN);
    if (state == State::waiting && found.kind == Way::Kind::open && !isHeldBack) {
        way = found;
        state = State::connecting;
        tell(Kind::preparing);
    }
    return verdict();
}

SteeredSession::Verdict SteeredSession::verdict() const {
    switch (state) {
        case State::waiting:
            return {Decision::drop, 0};
        case State::connecting:
        case State::established:
            return isHeldBack ? Verdict{Decision::drop, 0} : Verdict{Decision::steer, way.number};
        case State::offered:
        case State::over:
            break;
    }
    const bool isUnreachable = isStarted && way.kind == Way::Kind::otherFamilyOnly;
    return {isUnreachable ? Decision::unreachable : Decision::deny, 0};
}

void SteeredSession::failOpening(const NSError& error) {
    const Turn turn(*this);
    state = State::over;
    if (opening)
        news.emplace_back(
            [completion = std::exchange(opening, {}), error]() mutable { completion(error); });
}

void SteeredSession::socketChanged(const SteeredSocket& seen) {
    if (becomesHeldBack(seen)) socket->holdBack();
    const Turn turn(*this);
    if (seen.isEstablished != 0 && state == State::connecting) {
        state = State::established;
        tell(Kind::ready);
    }
    if (seen.isReleased == 0 && seen.isClosed == 0) return;
    switch (state) {
        case State::waiting:
        case State::connecting:
            return fail(seen.error != 0 ? seen.error : ECONNABORTED);
        case State::established:
            return end(seen.error, false);
        case State::offered:
        case State::over:
            return;
    }
}

// Held back while there was no entry yet to say so.
bool SteeredSession::becomesHeldBack(const SteeredSocket& seen) {
    const MutexGuard guard(lock);
    return seen.isEstablished != 0 && state == State::connecting && isHeldBack;
}

void SteeredSession::networkLost() {
    {
        const MutexGuard guard(lock);
        if (state != State::connecting && state != State::established) return;
    }
    socket->destroy();
    const Turn turn(*this);
    if (state == State::connecting || state == State::established) fail(ENETDOWN);
}

void SteeredSession::end(int error, bool isTold) {
    state = State::over;
    endError = error;
    if (isTold) tell(Kind::failed, error);
    completeIfOver();
}

void SteeredSession::fail(int error) { end(error, true); }

void SteeredSession::tell(Kind kind, int error) {
    if (std::exchange(isPreparingUntold, false)) tell(Kind::preparing);
    if (!stateHandler || (isCancelled && kind != Kind::cancelled)) return;
    news.emplace_back([handler = stateHandler, news = NWConnection::State{kind, errorOf(error)}] {
        (*handler)(news);
    });
    if (kind == Kind::cancelled) stateHandler = nullptr;
}

void SteeredSession::completeRead(const std::optional<NSError>& error) {
    if (reading)
        news.emplace_back([completion = std::exchange(reading, {}), error]() mutable {
            completion(std::nullopt, error);
        });
}

void SteeredSession::completeReceive(bool isComplete, const std::optional<NSError>& error) {
    if (receiving)
        news.emplace_back([completion = std::exchange(receiving, {}), isComplete, error]() mutable {
            completion(std::nullopt, NWConnection::ContentContext::defaultMessage, isComplete,
                       error);
        });
}

void SteeredSession::completeIfOver() {
    if (state != State::over) return;
    completeRead(errorOf(endError));
    completeReceive(endError == 0, errorOf(endError));
}

void SteeredSession::open(ErrorCompletion completion) {
    const Turn turn(*this);
    opening = std::move(completion);
    if (state != State::offered) {
        news.emplace_back(
            [late = std::exchange(opening, {})]() mutable { late(systemError(ECONNABORTED)); });
    }
}

void SteeredSession::read(ReadCompletion completion) {
    const Turn turn(*this);
    reading = std::move(completion);
    if (isReadClosed) return completeRead(systemError(ECANCELED));
    completeIfOver();
}

// There is nothing that could come to be written or sent.
void SteeredSession::write(ErrorCompletion completion) {
    const Turn turn(*this);
    news.emplace_back([late = std::move(completion)]() mutable { late(systemError(ENOTSUP)); });
}

void SteeredSession::send(ErrorCompletion completion) { write(std::move(completion)); }

SteeredSession::Act SteeredSession::close(bool& side, const std::optional<NSError>& error) {
    if (std::exchange(side, true)) return nullptr;
    const bool isAlive =
        state == State::waiting || state == State::connecting || state == State::established;
    if (!isAlive || !(error || (isReadClosed && isWriteClosed))) return nullptr;
    const bool isInOrder = !error && state == State::established && !isHeldBack;
    end(ECANCELED, false);
    return isInOrder ? &SessionSocket::finish : &SessionSocket::destroy;
}

void SteeredSession::closeRead(const std::optional<NSError>& error) {
    Act act = nullptr;
    {
        const Turn turn(*this);
        completeRead(systemError(ECANCELED));
        act = close(isReadClosed, error);
    }
    if (act) (*socket.*act)();
}

void SteeredSession::closeWrite(const std::optional<NSError>& error) {
    Act act = nullptr;
    {
        const Turn turn(*this);
        act = close(isWriteClosed, error);
    }
    if (act) (*socket.*act)();
}

void SteeredSession::setInterface(const std::string& name) {
    const MutexGuard guard(lock);
    interfaceName = name;
}

void SteeredSession::setStateHandler(StateHandler handler) {
    auto replacement = handler ? std::make_shared<const StateHandler>(std::move(handler)) : nullptr;
    // What the handler before held is let go outside the lock.
    const MutexGuard guard(lock);
    stateHandler.swap(replacement);
}

void SteeredSession::start() {
    std::string name;
    {
        const MutexGuard guard(lock);
        if (state != State::offered || isCancelled) return;
        name = interfaceName;
    }
    const Way found = socket->findWay(name);
    const Turn turn(*this);
    if (state == State::offered && !isCancelled) follow(found);
}

void SteeredSession::follow(Way found) {
    way = found;
    isStarted = true;
    switch (way.kind) {
        case Way::Kind::open:
            state = State::connecting;
            isPreparingUntold = true;
            return;
        case Way::Kind::otherFamilyOnly:
            return fail(EHOSTUNREACH);
        case Way::Kind::gone:
            return fail(ENETDOWN);
        case Way::Kind::none:
            state = State::waiting;
            return tell(Kind::waiting, ENETUNREACH);
    }
}

void SteeredSession::cancel() {
    const Turn turn(*this);
    if (std::exchange(isCancelled, true)) return;
    completeReceive(false, systemError(ECANCELED));
    if (isStarted)
        tell(Kind::cancelled);
    else
        stateHandler = nullptr;
}

void SteeredSession::holdBack() {
    {
        const MutexGuard guard(lock);
        if (std::exchange(isHeldBack, true)) return;
        if (state != State::connecting && state != State::established) return;
    }
    socket->holdBack();
}

void SteeredSession::receive(ReceiveCompletion completion) {
    const Turn turn(*this);
    receiving = std::move(completion);
    if (isCancelled) return completeReceive(false, systemError(ECANCELED));
    completeIfOver();
}

}  // namespace platform::steering
