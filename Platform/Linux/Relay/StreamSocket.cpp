#include "Platform/Linux/Relay/StreamSocket.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "Platform/Linux/Relay/HoldBack.h"

namespace platform {
namespace {

// An orderly end gives up a peer that takes no byte for this long, and any peer in the end.
constexpr double secondsWithoutProgress = 15;
constexpr double secondsAltogether = 300;
constexpr double secondsForPeerToEnd = 2;
constexpr double secondsOfHolding = 0.01;

// How often a loop looks after the sockets that are finishing.
constexpr double secondsBetweenChecks = 0.05;

void resetOnClose(int descriptor) {
    const linger abortively{1, 0};
    ::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &abortively, sizeof abortively);
}

}  // namespace

// The sockets of a loop that are finishing, looked after together: nearly all end within moments,
// and a timer for each would wake the loop for nothing.
class StreamSocket::FinishingOfThread {
public:
    static FinishingOfThread& current() {
        thread_local FinishingOfThread sockets;
        return sockets;
    }

    void add(StreamSocket& added) {
        sockets.push_back(added.weak_from_this());
        if (!std::exchange(isTicking, true)) tickLater(added.loop);
    }

private:
    void tickLater(EventLoop& ticking) {
        ticking.after(secondsBetweenChecks, [this, &ticking] { tick(ticking); });
    }
    void tick(EventLoop& ticking) {
        const auto now = TimerHeap::Clock::now();
        std::erase_if(sockets, [now](const std::weak_ptr<StreamSocket>& weak) {
            const auto living = weak.lock();
            if (living) living->checkFinishing(now);
            return !living || living->phase != Phase::finishing;
        });
        isTicking = !sockets.empty();
        if (isTicking) tickLater(ticking);
    }

    std::vector<std::weak_ptr<StreamSocket>> sockets;
    bool isTicking = false;
};

void StreamSocket::Owner::connectDone(StreamSocket&, int) {}

StreamSocket::StreamSocket(EventLoop& eventLoop, FileDescriptor descriptor, Owner& socketOwner)
    : loop(eventLoop), socket(eventLoop, std::move(descriptor), *this), owner(&socketOwner) {}

StreamSocket::~StreamSocket() = default;

Result<> StreamSocket::connect(const sockaddr* address, socklen_t length) {
    phase = Phase::connecting;
    if (::connect(socket.descriptor(), address, length) == 0)
        loop.askForTurn(shared_from_this());
    else if (errno == EINPROGRESS)
        socket.awaitConnection();
    else
        return Error::last();
    return socket.failure() == 0 ? Result<>() : Error(socket.failure());
}

sockaddr_storage StreamSocket::localAddress() const {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    ::getsockname(socket.descriptor(), reinterpret_cast<sockaddr*>(&address), &length);
    return address;
}

void StreamSocket::read(std::size_t minimumLength, std::size_t maximumLength) {
    input.want(minimumLength, maximumLength);
    askForReading();
}

void StreamSocket::write(Data data) {
    output.begin(std::move(data));
    loop.askForNextTurn(shared_from_this());
}

void StreamSocket::stopReading() { input.giveUp(); }

void StreamSocket::holdBack() {
    if (!std::exchange(isHeldBack, true)) holdBackContent(socket.descriptor());
}

void StreamSocket::endWriting() {
    isEndingWriting = true;
    loop.askForTurn(shared_from_this());
}

void StreamSocket::handleEvents(std::uint32_t events) {
    const auto self = shared_from_this();
    if (phase == Phase::connecting) return finishConnecting(events);
    socket.noteEvents(events);
    loop.askForTurn(self);
}

void StreamSocket::finishConnecting(std::uint32_t events) {
    if ((events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) == 0) return;
    int error = 0;
    socklen_t length = sizeof error;
    if ((events & (EPOLLERR | EPOLLHUP)) != 0 &&
        ::getsockopt(socket.descriptor(), SOL_SOCKET, SO_ERROR, &error, &length) != 0)
        error = errno;
    phase = Phase::open;
    socket.noteConnection(events);
    if (owner != nullptr) owner->connectDone(*this, error);
}

void StreamSocket::takeTurn() {
    if (phase == Phase::connecting) {
        phase = Phase::open;
        if (owner != nullptr) owner->connectDone(*this, socket.failure());
        return;
    }
    turn();
}

// One thing in a turn. Each pipe that is read is written, block by block, before the next is read,
// and the two directions of a session, like all sessions of a loop, take turns in reading.
void StreamSocket::turn() {
    if (phase == Phase::finishing) return continueFinishing();
    if (phase != Phase::open || isHeldBack) return;
    if (!tryWriting()) return tryReading();
    if (phase == Phase::open) askForReading();
}

void StreamSocket::askForReading() {
    if (!input.mayReceive()) return;
    if (input.isAhead())
        loop.askForNextTurn(shared_from_this());
    else
        loop.askForTurn(shared_from_this());
}

void StreamSocket::tryReading() {
    if (!input.mayReceive()) return;
    auto received = input.receive();
    if (received.isNothing()) return;
    owner->readDone(std::move(received.data), received.isEnd, received.error);
}

bool StreamSocket::tryWriting() {
    if (!output.isWriting() && (!isEndingWriting || output.hasShutDown())) return false;
    if (!isEndingWriting && output.hold()) {
        writeHeldSoon();
        owner->writeDone(0);
        return true;
    }
    if (!socket.mayWrite() && socket.failure() == 0) return false;
    const int error = output.write();
    if (error == EAGAIN) return true;
    if (isEndingWriting)
        output.shutDown();
    else
        owner->writeDone(error);
    return true;
}

// Should what was to follow the blocks that are held not come, they go without it.
void StreamSocket::writeHeldSoon() {
    if (std::exchange(isWritingHeldSoon, true)) return;
    loop.after(secondsOfHolding, [weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        self->isWritingHeldSoon = false;
        if (self->phase != Phase::open || self->isHeldBack || self->output.isWriting() ||
            !self->output.isHolding())
            return;
        if (self->output.write() == EAGAIN) self->writeHeldSoon();
    });
}

void StreamSocket::finish(Farewell farewell) {
    if (phase == Phase::closed || phase == Phase::finishing) return;
    owner = nullptr;
    input.giveUp();
    if (phase == Phase::connecting || socket.failure() != 0)
        return farewell == Farewell::untilReset ? reset() : close();
    phase = Phase::finishing;
    finishing = std::make_unique<Finishing>();
    finishing->self = shared_from_this();
    finishing->farewell = farewell;
    // A peer that has ended waits for nothing, and the other end of a relay may.
    if (input.hasEnded()) return loop.askForTurn(finishing->self);
    continueFinishing();
}

void StreamSocket::reset() {
    owner = nullptr;
    input.giveUp();
    if (phase == Phase::closed) return;
    resetOnClose(socket.descriptor());
    close();
}

void StreamSocket::continueFinishing() {
    const bool isAllHandedOver = hasDeliveredWriting();
    if (!input.discard()) loop.askForTurn(finishing->self);
    if (socket.failure() != 0 || (isAllHandedOver && mayCloseNow())) return close();
    if (isAllHandedOver && finishing->farewell != Farewell::untilReset) output.shutDown();
    if (!std::exchange(finishing->isLookedAfter, true)) FinishingOfThread::current().add(*this);
}

bool StreamSocket::hasDeliveredWriting() {
    if (output.unwritten() == 0 || socket.failure() != 0) return true;
    return socket.mayWrite() && output.write() != EAGAIN;
}

bool StreamSocket::mayCloseNow() const {
    // A peer that sends nothing more cannot turn a plain close into a reset, and the system brings
    // the rest to it.
    switch (finishing->farewell) {
        case Farewell::untilReset:
            return undeliveredBytes() == 0;
        case Farewell::untilPeerEnds:
            return input.hasEnded();
        case Farewell::untilDelivered:
            break;
    }
    return input.hasEnded() || (!socket.mayRead() && undeliveredBytes() == 0);
}

std::size_t StreamSocket::undeliveredBytes() const {
    int queued = 0;
    if (::ioctl(socket.descriptor(), SIOCOUTQ, &queued) != 0) queued = 0;
    return static_cast<std::size_t>(queued) + output.unwritten();
}

void StreamSocket::checkFinishing(TimerHeap::Clock::time_point now) {
    if (phase != Phase::finishing || now < finishing->nextCheck) return;
    Finishing& state = *finishing;
    const std::size_t undelivered = undeliveredBytes();
    const bool isProgress = undelivered != std::exchange(state.undelivered, undelivered);
    state.total += state.interval;
    state.sinceProgress = isProgress ? 0 : state.sinceProgress + state.interval;
    const bool isDelivered = undelivered == 0;
    const double patience = isDelivered ? secondsForPeerToEnd : secondsWithoutProgress;
    const bool isOver = isDelivered && state.farewell != Farewell::untilPeerEnds;
    if (isOver || state.sinceProgress >= patience || state.total >= secondsAltogether)
        return close();
    state.interval = std::min(1.0, state.interval * 2);
    state.nextCheck = TimerHeap::instantAfter(state.interval);
}

void StreamSocket::close() {
    if (phase == Phase::closed) return;
    phase = Phase::closed;
    if (finishing && finishing->farewell == Farewell::untilReset) resetOnClose(socket.descriptor());
    input.clear();
    output.clear();
    socket.close();
    if (closeHandler) loop.post(std::move(closeHandler));
    const std::unique_ptr<Finishing> ended = std::move(finishing);  // perhaps the last to hold this
}

}  // namespace platform
