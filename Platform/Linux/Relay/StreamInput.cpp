#include "Platform/Linux/Relay/StreamInput.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "Platform/Linux/Relay/LastBytes.h"
#include "Platform/Linux/Relay/Pipe.h"
#include "Platform/Linux/Relay/RelayMemory.h"

namespace platform {
namespace {

constexpr std::size_t smallRead = 16 * 1024;
constexpr std::size_t largeRead = 64 * 1024;
// Blocks below this size are cheaper through memory.
constexpr std::size_t smallestBulk = 8 * 1024;

thread_local std::array<char, largeRead> readBuffer;

}  // namespace

using Received = StreamInput::Received;

void StreamInput::want(std::size_t minimumLength, std::size_t maximumLength) {
    minimum = std::min(minimumLength, maximumLength);
    maximum = maximumLength;
    isWanted = true;
}

Received StreamInput::receive() {
    Received received = receiveNow();
    if (received.isEnd) hasEnded_ = true;
    if (!received.isNothing()) isWanted = false;
    return received;
}

Received StreamInput::receiveNow() {
    if (ahead && minimum > 1) takeAheadIntoMemory();
    if (ahead) return nextBlockOfPipe();
    if (socket.failure() != 0) return Received::failed(socket.failure());
    if (hasEnded_) return Received::ended();
    Received received = minimum > 1    ? receiveAtLeast()
                        : mayUsePipe() ? receiveIntoPipe()
                                       : receiveIntoMemory(std::min(maximum, smallRead));
    // Bytes that came before an error count: the next read answers the error.
    if (received.error != 0) socket.fail(received.error);
    return received;
}

Received StreamInput::receiveIntoMemory(std::size_t most) {
    const std::size_t wanted = RelayMemory::allowanceFor(most);
    ssize_t count = 0;
    do {
        count = ::recv(socket.descriptor(), readBuffer.data(), wanted, MSG_DONTWAIT);
    } while (count < 0 && errno == EINTR);
    if (count <= 0) return nothingReceived(count);
    const auto length = static_cast<std::size_t>(count);
    isBulk = length == wanted && length >= smallRead;
    std::string bytes(readBuffer.data(), length);
    // At urgent bytes a read is short though more has come.
    if (length == wanted || socket.hasUrgentBytes() || !isEndNext())
        return {.data = RelayMemory::block(std::move(bytes))};
    return {.data = Data(std::make_shared<LastBytes>(std::move(bytes)), length), .isEnd = true};
}

Received StreamInput::receiveIntoPipe() {
    auto pipe = Pipe::take();
    if (!pipe) return receiveIntoMemory(std::min(maximum, largeRead));
    ssize_t count = 0;
    do {
        count = pipe->fillFrom(socket.descriptor(), pipe->capacity());
    } while (count < 0 && errno == EINTR);
    if (count <= 0) {
        const int error = errno;
        Pipe::giveBack(std::move(pipe));
        // The end of the stream, or urgent bytes that no event has told of yet.
        if (count == 0) return receiveIntoMemory(std::min(maximum, smallRead));
        errno = error;
        return nothingReceived(count);
    }
    const auto length = static_cast<std::size_t>(count);
    isBulk = length >= smallestBulk;
    ahead = std::make_shared<PipeContents>(std::move(pipe), length);
    return nextBlockOfPipe();
}

bool StreamInput::mayUsePipe() const { return isBulk && !socket.hasUrgentBytes(); }

Received StreamInput::nextBlockOfPipe() {
    const std::size_t length = std::min(maximum, ahead->undelivered());
    auto block = std::make_shared<const PipeBlock>(ahead, ahead->deliver(length));
    if (ahead->undelivered() == 0) ahead = nullptr;
    return {Data(std::move(block), length)};
}

// A block of at least so many bytes may need some that are still to come, and those cannot join the
// pipe.
void StreamInput::takeAheadIntoMemory() {
    const std::size_t length = ahead->undelivered();
    if (length >= minimum) return;
    gathered = std::exchange(ahead, nullptr)->takeUndelivered();
    if (gathered.size() < length) socket.fail(EIO);
}

Received StreamInput::receiveAtLeast() {
    while (socket.mayRead() && gathered.size() < minimum) {
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

Received StreamInput::nothingReceived(ssize_t result) {
    if (result == 0) return Received::ended();
    if (errno != EAGAIN) return Received::failed(errno);
    socket.awaitReading();
    return Received::failed(socket.failure());
}

// All that had come is read. The end, if it is there, goes along with the last bytes.
bool StreamInput::isEndNext() {
    if (socket.peerSeemsEnded()) {
        char next = 0;
        const ssize_t count = ::recv(socket.descriptor(), &next, 1, MSG_DONTWAIT | MSG_PEEK);
        if (count >= 0 || errno != EAGAIN) return count == 0;
    }
    socket.awaitReading();
    return false;
}

bool StreamInput::discard() {
    constexpr int piecesAtOnce = 16;
    for (int i = 0; socket.mayRead() && !hasEnded_ && socket.failure() == 0; ++i) {
        if (i == piecesAtOnce) return false;
        // With MSG_TRUNC the bytes of a stream are dropped where they are, and none is copied.
        const ssize_t count = ::recv(socket.descriptor(), readBuffer.data(), readBuffer.size(),
                                     MSG_TRUNC | MSG_DONTWAIT);
        if (count == 0)
            hasEnded_ = true;
        else if (count < 0 && errno == EAGAIN)
            socket.awaitReading();
        else if (count < 0 && errno != EINTR)
            socket.fail(errno);
    }
    return true;
}

}  // namespace platform
