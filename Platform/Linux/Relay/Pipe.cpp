#include "Platform/Linux/Relay/Pipe.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <utility>
#include <vector>

#include "Platform/Linux/DescriptorReserve.h"

namespace platform {
namespace {

// The fewer times a stream changes hands, the fewer wake-ups and small segments. But what peers that
// do not read tie up must stay within bounds, so only the first pipes are as large as that.
constexpr int largeCapacity = 1024 * 1024;
constexpr int capacityOfMany = 256 * 1024;
constexpr int mostLargePipes = 64;
constexpr int mostPipes = 512;
constexpr std::size_t keptForEachThread = 8;

std::atomic<int> pipes{0};
thread_local std::vector<std::unique_ptr<Pipe>> kept;

}  // namespace

std::unique_ptr<Pipe> Pipe::take() {
    if (!kept.empty()) {
        std::unique_ptr<Pipe> pipe = std::move(kept.back());
        kept.pop_back();
        return pipe;
    }
    const int present = pipes.load(std::memory_order_relaxed);
    if (present >= mostPipes) return nullptr;
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return nullptr;
    FileDescriptor readingEnd(ends[0]);
    FileDescriptor writingEnd(ends[1]);
    if (DescriptorReserve::holds(std::max(ends[0], ends[1]))) return nullptr;
    // Without privilege there may be less than asked for.
    ::fcntl(ends[1], F_SETPIPE_SZ, present < mostLargePipes ? largeCapacity : capacityOfMany);
    const int capacity = ::fcntl(ends[1], F_GETPIPE_SZ);
    return std::unique_ptr<Pipe>(
        new Pipe(std::move(readingEnd), std::move(writingEnd),
                 capacity > 0 ? static_cast<std::size_t>(capacity) : 4096));
}

void Pipe::giveBack(std::unique_ptr<Pipe> pipe) {
    if (kept.size() < keptForEachThread) kept.push_back(std::move(pipe));
}

Pipe::Pipe(FileDescriptor readingEnd, FileDescriptor writingEnd, std::size_t capacity)
    : readEnd(std::move(readingEnd)), writeEnd(std::move(writingEnd)), capacity_(capacity) {
    pipes.fetch_add(1, std::memory_order_relaxed);
}

Pipe::~Pipe() { pipes.fetch_sub(1, std::memory_order_relaxed); }

ssize_t Pipe::fillFrom(int socket, std::size_t length) {
    return ::splice(socket, nullptr, writeEnd.get(), nullptr, length,
                    SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
}

ssize_t Pipe::drainTo(int socket, std::size_t length) {
    return ::splice(readEnd.get(), nullptr, socket, nullptr, length,
                    SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
}

ssize_t Pipe::read(char* bytes, std::size_t length) { return ::read(readEnd.get(), bytes, length); }

PipeContents::~PipeContents() {
    if (pipe && removed == length) Pipe::giveBack(std::move(pipe));
}

bool PipeContents::skipTo(std::size_t start) {
    std::array<char, 4096> unwanted;
    while (removed < start) {
        const ssize_t count =
            pipe->read(unwanted.data(), std::min(unwanted.size(), start - removed));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        removed += static_cast<std::size_t>(count);
    }
    return true;
}

std::string PipeContents::takeUndelivered() {
    if (!skipTo(delivered)) return {};
    std::string bytes(undelivered(), '\0');
    std::size_t copied = 0;
    while (copied < bytes.size()) {
        const ssize_t count = pipe->read(bytes.data() + copied, bytes.size() - copied);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        copied += static_cast<std::size_t>(count);
    }
    bytes.resize(copied);
    removed += copied;
    delivered = length;
    return bytes;
}

ssize_t PipeContents::moveTo(int socket, std::size_t start, std::size_t count) {
    if (removed > start || !skipTo(start)) {
        errno = EINVAL;  // moved on before
        return -1;
    }
    const ssize_t moved = pipe->drainTo(socket, count);
    if (moved > 0) removed += static_cast<std::size_t>(moved);
    return moved;
}

}  // namespace platform
