#include "Platform/Linux/Relay/Pipe.h"

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <utility>
#include <vector>

namespace platform {
namespace {

// Larger ones move no more bytes a second, smaller ones fewer.
constexpr int wantedCapacity = 256 * 1024;
constexpr std::size_t keptForEachThread = 8;
constexpr int mostPipes = 512;

std::atomic<int> pipes{0};
thread_local std::vector<std::unique_ptr<Pipe>> kept;

}  // namespace

std::unique_ptr<Pipe> Pipe::take() {
    if (!kept.empty()) {
        std::unique_ptr<Pipe> pipe = std::move(kept.back());
        kept.pop_back();
        return pipe;
    }
    if (pipes.load(std::memory_order_relaxed) >= mostPipes) return nullptr;
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return nullptr;
    // Without privilege there may be less than asked for.
    ::fcntl(ends[1], F_SETPIPE_SZ, wantedCapacity);
    const int capacity = ::fcntl(ends[1], F_GETPIPE_SZ);
    return std::unique_ptr<Pipe>(
        new Pipe(FileDescriptor(ends[0]), FileDescriptor(ends[1]),
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

PipeStorage::~PipeStorage() {
    if (pipe && left == 0) Pipe::giveBack(std::move(pipe));
}

ssize_t PipeStorage::moveTo(int socket, std::size_t length) const {
    if (!pipe || left == 0) {
        errno = EINVAL;  // moved on before
        return -1;
    }
    const ssize_t moved = pipe->drainTo(socket, std::min(length, left));
    if (moved > 0) left -= static_cast<std::size_t>(moved);
    if (left == 0) Pipe::giveBack(std::move(pipe));
    return moved;
}

}  // namespace platform
