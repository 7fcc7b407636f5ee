#include "Platform/Linux/Relay/StreamSocket.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>
#include <vector>

#include "Platform/Linux/Relay/Pipe.h"

namespace platform {
namespace {

constexpr std::size_t smallRead = 16 * 1024;
constexpr std::size_t largeRead = 64 * 1024;
// Blocks below this size are cheaper through memory.
constexpr std::size_t smallestBulk = 8 * 1024;

// An orderly end gives up a peer that takes no byte for this long, and any peer in the end.
constexpr double secondsWithoutProgress = 15;
constexpr double secondsAltogether = 300;
constexpr double secondsForPeerToEnd = 2;
constexpr double secondsOfHolding = 0.01;

// Each change is reported once. Most sockets never fill up, and each report costs.
constexpr std::uint32_t whenReadable = EPOLLIN | EPOLLRDHUP | EPOLLET;
constexpr std::uint32_t whenReadableOrWritable = whenReadable | EPOLLOUT;

// How often a loop looks after the sockets that are finishing.
constexpr double secondsBetweenChecks = 0.05;

thread_local std::array<char, largeRead> readBuffer;

}  // namespace

// The sockets of a loop that are finishing, looked after together: nearly all end within moments,
// and a timer for each would wake the loop for nothing.
class StreamSocket::FinishingOfThread {
public:
    static FinishingOfThread& current() {
        thread_local FinishingOfThread sockets;
        return sockets;
    }

    void add(StreamSocket& socket) {
        sockets.push_back(socket.weak_from_this());
        if (!std::exchange(isTicking, true)) tickLater(socket.loop);
    }

private:
    void tickLater(EventLoop& ticking) {
        ticking.after(secondsBetweenChecks, [this, &ticking] { tick(ticking); });
    }
    void tick(EventLoop& ticking) {
        const auto now = TimerHeap::Clock::now();
        std::erase_if(sockets, [now](const std::weak_ptr<StreamSocket>& weak) {
            const auto socket = weak.lock();
            if (socket) socket->checkFinishing(now);
            return !socket || socket->phase != Phase::finishing;
        });
        isTicking = !sockets.empty();
        if (isTicking) tickLater(ticking);
    }

    std::vector<std::weak_ptr<StreamSocket>> sockets;
    bool isTicking = false;
};

void StreamSocket::Owner::connectDone(StreamSocket&, int) {}

StreamSocket::StreamSocket(EventLoop& eventLoop, FileDescriptor socket, Owner& socketOwner)
    : loop(eventLoop), descriptor(std::move(socket)), owner(&socketOwner) {}

StreamSocket::~StreamSocket() {
    if (isWatched) loop.forget(*this);
}

int StreamSocket::connect(const sockaddr* address, socklen_t length) {
    phase = Phase::connecting;
    if (::connect(descriptor.get(), address, length) == 0)
        loop.askForTurn(shared_from_this());
    else if (errno == EINPROGRESS)
        watchFor(whenReadableOrWritable);
    else
        return errno;
    return failure;
}

void StreamSocket::read(std::size_t minimumLength, std::size_t maximumLength) {
    minimum = std::min(minimumLength, maximumLength);
    maximum = maximumLength;
    isReading = true;
    askForReading();
}

void StreamSocket::write(Data data) {
    writing = std::move(data);
    written = 0;
    isWriting = true;
    loop.askForNextTurn(shared_from_this());
}

void StreamSocket::stopReading() { isReading = false; }

void StreamSocket::endWriting() {
    isEndingWriting = true;
    loop.askForTurn(shared_from_this());
}

void StreamSocket::handleEvents(std::uint32_t events) {
    const auto self = shared_from_this();
    if (phase == Phase::connecting) return finishConnecting(events);
    noteEvents(events);
    loop.askForTurn(self);
}

void StreamSocket::noteEvents(std::uint32_t events) {
    if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) peerSeemsEnded = true;
    if ((events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) mayRead = true;
    if ((events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0) mayWrite = true;
}

void StreamSocket::finishConnecting(std::uint32_t events) {
    if ((events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) == 0) return;
    int error = 0;
    socklen_t length = sizeof error;
    if ((events & (EPOLLERR | EPOLLHUP)) != 0 &&
        ::getsockopt(descriptor.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0)
        error = errno;
    phase = Phase::open;
    mayRead = false;
    noteEvents(events);
    if (owner != nullptr) owner->connectDone(*this, error);
}

void StreamSocket::takeTurn() {
    if (phase == Phase::connecting) {
        phase = Phase::open;
        if (owner != nullptr) owner->connectDone(*this, failure);
        return;
    }
    turn();
}

// One thing in a turn. Each pipe that is read is written, block by block, before the next is read,
// and the two directions of a session, like all sessions of a loop, take turns in reading.
void StreamSocket::turn() {
    if (phase == Phase::finishing) return continueFinishing();
    if (phase != Phase::open) return;
    if (!tryWriting()) return tryReading();
    if (phase == Phase::open) askForReading();
}

void StreamSocket::askForReading() {
    if (!isReading || !mayAnswerReading()) return;
    if (ahead)
        loop.askForNextTurn(shared_from_this());
    else
        loop.askForTurn(shared_from_this());
}

void StreamSocket::tryReading() {
    if (!isReading || !mayAnswerReading()) return;
    Received received = receive();
    if (received.isNothing()) return;
    isReading = false;
    owner->readDone(std::move(received.data), received.isEnd, received.error);
}

StreamSocket::Received StreamSocket::receive() {
    if (ahead && minimum > 1) takeAheadIntoMemory();
    if (ahead) return nextBlockOfPipe();
    if (failure != 0) return Received::failed(failure);
    if (hasReadEnd) return Received::ended();
    Received received = minimum > 1 ? receiveAtLeast()
                        : isBulk    ? receiveIntoPipe()
                                    : receiveIntoMemory(std::min(maximum, smallRead));
    if (received.isEnd) hasReadEnd = true;
    // Bytes that came before an error count: the next read answers the error.
    if (received.error == 0) return received;
    failure = received.error;
    return received;
}

StreamSocket::Received StreamSocket::receiveIntoMemory(std::size_t wanted) {
    ssize_t count = 0;
    do {
        count = ::recv(descriptor.get(), readBuffer.data(), wanted, MSG_DONTWAIT);
    } while (count < 0 && errno == EINTR);
    if (count <= 0) return nothingReceived(count);
    const auto length = static_cast<std::size_t>(count);
    isBulk = length == wanted && length >= smallRead;
    Received received{.data = std::string(readBuffer.data(), length)};
    if (length < wanted) lookForEnd(received);
    return received;
}

StreamSocket::Received StreamSocket::receiveIntoPipe() {
    auto pipe = Pipe::take();
    if (!pipe) return receiveIntoMemory(std::min(maximum, largeRead));
    ssize_t count = 0;
    do {
        count = pipe->fillFrom(descriptor.get(), pipe->capacity());
    } while (count < 0 && errno == EINTR);
    if (count <= 0) {
        const int error = errno;
        Pipe::giveBack(std::move(pipe));
        errno = error;
        return nothingReceived(count);
    }
    const auto length = static_cast<std::size_t>(count);
    isBulk = length >= smallestBulk;
    ahead = std::make_shared<PipeContents>(std::move(pipe), length);
    return nextBlockOfPipe();
}

StreamSocket::Received StreamSocket::nextBlockOfPipe() {
    const std::size_t length = std::min(maximum, ahead->undelivered());
    auto block = std::make_shared<const PipeBlock>(ahead, ahead->deliver(length));
    if (ahead->undelivered() == 0) ahead = nullptr;
    return {Data(std::move(block), length)};
}

// A block of at least so many bytes may need some that are still to come, and those cannot join the
// pipe.
void StreamSocket::takeAheadIntoMemory() {
    const std::size_t length = ahead->undelivered();
    if (length >= minimum) return;
    gathered = std::exchange(ahead, nullptr)->takeUndelivered();
    if (gathered.size() < length) failure = EIO;
}

StreamSocket::Received StreamSocket::receiveAtLeast() {
    while (mayRead && gathered.size() < minimum) {
        Received piece = receiveIntoMemory(std::min(maximum - gathered.size(), smallRead));
        isBulk = false;
        if (piece.isNothing()) return {};
        gathered += piece.data.bytes().value();
        if (!piece.isEnd && piece.error == 0) continue;
        return {.data = std::exchange(gathered, {}), .isEnd = piece.isEnd, .error = piece.error};
    }
    if (gathered.size() < minimum) return {};
    return {.data = std::exchange(gathered, {})};
}

StreamSocket::Received StreamSocket::nothingReceived(ssize_t result) {
    if (result == 0) return Received::ended();
    if (errno != EAGAIN) return Received::failed(errno);
    awaitReading();
    return Received::failed(failure);
}

// All that had come is read. The end, if it is there, goes along with the last bytes.
void StreamSocket::lookForEnd(Received& received) {
    if (!peerSeemsEnded) return awaitReading();
    char next = 0;
    const ssize_t count = ::recv(descriptor.get(), &next, 1, MSG_DONTWAIT | MSG_PEEK);
    if (count == 0)
        received.isEnd = true;
    else if (count < 0 && errno == EAGAIN)
        awaitReading();
}

bool StreamSocket::tryWriting() {
    if (isWriting && hold(dynamic_cast<const PipeBlock*>(writing.storage().get()))) {
        answerWriting(0);
        return true;
    }
    if (!mayWrite && failure == 0) return false;
    if (isWriting) {
        const int error = failure != 0 ? failure : writeOn();
        if (error != EAGAIN) answerWriting(error);
        return true;
    }
    if (!isEndingWriting || hasShutDownWriting) return false;
    if (writeHeld() != EAGAIN) shutDownWriting();
    return true;
}

void StreamSocket::answerWriting(int error) {
    isWriting = false;
    writing = Data();
    if (!isEndingWriting) return owner->writeDone(error);
    if (writeHeld() != EAGAIN) shutDownWriting();
}

// A stream that is handed on in small blocks is written in large ones, as each write wakes its
// reader: a block with more to follow is only kept. True if it was.
bool StreamSocket::hold(const PipeBlock* block) {
    if (block == nullptr || written != 0 || failure != 0) return false;
    const bool continuesHeld = held == block->contents && heldStart + heldLength == block->start;
    if (heldLength != 0 && !continuesHeld) return false;
    if (heldLength == 0) heldStart = block->start;
    held = block->contents;
    heldLength += writing.length();
    if (held->undelivered() == 0 || isEndingWriting) {
        // The last one: all are written now, and this one is answered when they are.
        written = writing.length();
        return false;
    }
    writeHeldSoon();
    return true;
}

// Should what was to follow not come, the bytes go without it.
void StreamSocket::writeHeldSoon() {
    if (std::exchange(isWritingHeldSoon, true)) return;
    loop.after(secondsOfHolding, [weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        self->isWritingHeldSoon = false;
        if (self->phase != Phase::open || self->isWriting || self->heldLength == 0) return;
        if (self->writeHeld() == EAGAIN) self->writeHeldSoon();
    });
}

int StreamSocket::writeHeld() {
    while (heldLength != 0) {
        const ssize_t count = held->moveTo(descriptor.get(), heldStart, heldLength);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return noteWriting(errno);
        heldStart += static_cast<std::size_t>(count);
        heldLength -= static_cast<std::size_t>(count);
    }
    held = nullptr;
    return 0;
}

int StreamSocket::noteWriting(int error) {
    if (error == EAGAIN)
        awaitWriting();
    else
        failure = error;
    return failure != 0 ? failure : EAGAIN;
}

int StreamSocket::writeOn() {
    if (const int error = writeHeld()) return error;
    if (written == writing.length()) return 0;
    const auto bytes = writing.bytes();
    if (!bytes) return writeBlockOn(dynamic_cast<const PipeBlock*>(writing.storage().get()));
    while (written < bytes->size()) {
        const ssize_t count = ::send(descriptor.get(), bytes->data() + written,
                                     bytes->size() - written, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return noteWriting(errno);
        written += static_cast<std::size_t>(count);
    }
    return 0;
}

// A block that did not continue those before it.
int StreamSocket::writeBlockOn(const PipeBlock* block) {
    if (block == nullptr) return EINVAL;
    held = block->contents;
    heldStart = block->start;
    heldLength = std::exchange(written, writing.length()) == 0 ? writing.length() : 0;
    return writeHeld();
}

void StreamSocket::shutDownWriting() {
    if (std::exchange(hasShutDownWriting, true)) return;
    ::shutdown(descriptor.get(), SHUT_WR);
}

void StreamSocket::awaitReading() {
    mayRead = false;
    if (!isWatched) watchFor(whenReadable);
}

void StreamSocket::awaitWriting() {
    mayWrite = false;
    if (!isWatchedForWriting) watchFor(whenReadableOrWritable);
}

// What has changed since the attempt is reported at once.
void StreamSocket::watchFor(std::uint32_t events) {
    const int error = isWatched ? loop.changeWatch(descriptor.get(), events, *this)
                                : loop.watch(descriptor.get(), events, *this);
    if (error != 0) {
        failure = error;
        return;
    }
    isWatched = true;
    isWatchedForWriting = (events & EPOLLOUT) != 0;
}

void StreamSocket::finish(Farewell farewell) {
    if (phase == Phase::closed || phase == Phase::finishing) return;
    owner = nullptr;
    isReading = false;
    if (phase == Phase::connecting || failure != 0) return close();
    phase = Phase::finishing;
    finishing = std::make_unique<Finishing>();
    finishing->self = shared_from_this();
    finishing->farewell = farewell;
    // A peer that has ended waits for nothing, and the other end of a relay may.
    if (hasReadEnd) return loop.askForTurn(finishing->self);
    continueFinishing();
}

void StreamSocket::reset() {
    owner = nullptr;
    isReading = false;
    if (phase == Phase::closed) return;
    const linger abortively{1, 0};
    ::setsockopt(descriptor.get(), SOL_SOCKET, SO_LINGER, &abortively, sizeof abortively);
    close();
}

void StreamSocket::continueFinishing() {
    const bool isAllHandedOver = hasDeliveredWriting();
    discardInput();
    if (failure != 0 || (isAllHandedOver && mayCloseNow())) return close();
    if (isAllHandedOver) shutDownWriting();
    if (!std::exchange(finishing->isLookedAfter, true)) FinishingOfThread::current().add(*this);
}

bool StreamSocket::hasDeliveredWriting() {
    if ((!isWriting && heldLength == 0) || failure != 0) return true;
    if (!mayWrite) return false;
    if ((isWriting ? writeOn() : writeHeld()) == EAGAIN) return false;
    isWriting = false;
    return true;
}

void StreamSocket::discardInput() {
    constexpr int piecesAtOnce = 16;
    for (int i = 0; mayRead && !hasReadEnd && failure == 0; ++i) {
        if (i == piecesAtOnce) return loop.askForTurn(shared_from_this());
        // With MSG_TRUNC the bytes of a stream are dropped where they are, and none is copied.
        const ssize_t count = ::recv(descriptor.get(), readBuffer.data(), readBuffer.size(),
                                     MSG_TRUNC | MSG_DONTWAIT);
        if (count == 0)
            hasReadEnd = true;
        else if (count < 0 && errno == EAGAIN)
            awaitReading();
        else if (count < 0 && errno != EINTR)
            failure = errno;
    }
}

bool StreamSocket::mayCloseNow() const {
    // A peer that sends nothing more cannot turn a plain close into a reset, and the system brings
    // the rest to it.
    if (hasReadEnd) return true;
    return finishing->farewell == Farewell::untilDelivered && !mayRead && undeliveredBytes() == 0;
}

std::size_t StreamSocket::undeliveredBytes() const {
    int queued = 0;
    if (::ioctl(descriptor.get(), SIOCOUTQ, &queued) != 0) queued = 0;
    return static_cast<std::size_t>(queued) + heldLength +
           (isWriting ? writing.length() - written : 0);
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
    const bool isOver = isDelivered && state.farewell == Farewell::untilDelivered;
    if (isOver || state.sinceProgress >= patience || state.total >= secondsAltogether)
        return close();
    state.interval = std::min(1.0, state.interval * 2);
    state.nextCheck = TimerHeap::instantAfter(state.interval);
}

void StreamSocket::close() {
    if (phase == Phase::closed) return;
    phase = Phase::closed;
    isWriting = false;
    writing = Data();
    held = nullptr;
    heldLength = 0;
    ahead = nullptr;
    if (std::exchange(isWatched, false)) loop.forget(*this);
    descriptor = FileDescriptor();
    if (closeHandler) loop.post(std::move(closeHandler));
    const std::unique_ptr<Finishing> ended = std::move(finishing);  // perhaps the last to hold this
}

}  // namespace platform
