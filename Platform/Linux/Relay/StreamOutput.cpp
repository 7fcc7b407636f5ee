#include "Platform/Linux/Relay/StreamOutput.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "Platform/Linux/Relay/LastBytes.h"
#include "Platform/Linux/Relay/Pipe.h"

namespace platform {

void StreamOutput::begin(Data data) {
    writing = std::move(data);
    written = 0;
    isWriting_ = true;
}

std::size_t StreamOutput::unwritten() const {
    return heldLength + (isWriting_ ? writing.length() - written : 0);
}

bool StreamOutput::hold() {
    const PipeBlock* const next = isWriting_ ? block() : nullptr;
    if (next == nullptr || written != 0 || socket.failure() != 0) return false;
    const bool continuesHeld = held == next->contents && heldStart + heldLength == next->start;
    if (heldLength != 0 && !continuesHeld) return false;
    if (heldLength == 0) heldStart = next->start;
    held = next->contents;
    heldLength += writing.length();
    // The last one: all are written now, and this one is answered when they are.
    const bool isLast = held->undelivered() == 0;
    if (isLast)
        written = writing.length();
    else
        isWriting_ = false;
    return !isLast;
}

int StreamOutput::write() {
    const int error = socket.failure() != 0 ? socket.failure() : writeOn();
    if (error != EAGAIN && std::exchange(isWriting_, false)) writing = Data();
    return error;
}

int StreamOutput::writeOn() {
    if (const int error = writeHeld()) return error;
    if (!isWriting_ || written == writing.length()) return 0;
    const auto bytes = writing.bytes();
    return bytes ? writeMemory(*bytes) : writeBlock();
}

int StreamOutput::writeHeld() {
    while (heldLength != 0) {
        const ssize_t count = held->moveTo(socket.descriptor(), heldStart, heldLength);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return noteError(errno);
        heldStart += static_cast<std::size_t>(count);
        heldLength -= static_cast<std::size_t>(count);
    }
    held = nullptr;
    return 0;
}

// A block that did not continue those before it, or that ends the stream.
int StreamOutput::writeBlock() {
    const PipeBlock* const next = block();
    if (next == nullptr) return EINVAL;
    held = next->contents;
    heldStart = next->start;
    heldLength = written = writing.length();
    return writeHeld();
}

int StreamOutput::writeMemory(std::string_view bytes) {
    const bool isLast = dynamic_cast<const LastBytes*>(writing.storage().get()) != nullptr;
    const int flags = MSG_NOSIGNAL | MSG_DONTWAIT | (isLast ? MSG_MORE : 0);
    while (written < bytes.size()) {
        const ssize_t count =
            ::send(socket.descriptor(), bytes.data() + written, bytes.size() - written, flags);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return noteError(errno);
        written += static_cast<std::size_t>(count);
    }
    return 0;
}

const PipeBlock* StreamOutput::block() const {
    return dynamic_cast<const PipeBlock*>(writing.storage().get());
}

int StreamOutput::noteError(int error) {
    if (error == EAGAIN)
        socket.awaitWriting();
    else
        socket.fail(error);
    return socket.failure() != 0 ? socket.failure() : EAGAIN;
}

void StreamOutput::shutDown() {
    if (std::exchange(hasShutDown_, true)) return;
    ::shutdown(socket.descriptor(), SHUT_WR);
}

void StreamOutput::clear() {
    isWriting_ = false;
    writing = Data();
    held = nullptr;
    heldLength = 0;
}

}  // namespace platform
