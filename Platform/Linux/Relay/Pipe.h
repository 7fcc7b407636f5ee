// Kernel pipes that carry bytes from one socket to another without bringing them into the process.
// A pipe is taken for one block of bytes and given back, empty, when the block has been moved on;
// each thread keeps a few for the next block, and the number in use at any time is bounded, so that
// peers which do not read cannot tie up descriptors and memory without end.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>

#include "Platform/Common/Data.h"
#include "Platform/Linux/FileDescriptor.h"

namespace platform {

class Pipe {
public:
    // A pipe of this thread's or a new one; null when there are too many or the system has none.
    static std::unique_ptr<Pipe> take();
    // Keeps an empty pipe for the calling thread's next `take`, or closes it.
    static void giveBack(std::unique_ptr<Pipe> pipe);

    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    std::size_t capacity() const { return capacity_; }
    // Moves up to `length` bytes in from a socket or out to one. As of splice(2): the number moved,
    // 0 at the stream's end, -1 with errno; neither waits.
    ssize_t fillFrom(int socket, std::size_t length);
    ssize_t drainTo(int socket, std::size_t length);

private:
    Pipe(FileDescriptor readingEnd, FileDescriptor writingEnd, std::size_t capacity);

    FileDescriptor readEnd;
    FileDescriptor writeEnd;
    std::size_t capacity_;
};

// A block of bytes that lies in a pipe. It can be moved on once, by one writer at a time.
class PipeStorage final : public Data::Storage {
public:
    PipeStorage(std::unique_ptr<Pipe> filledPipe, std::size_t length)
        : pipe(std::move(filledPipe)), left(length) {}
    ~PipeStorage() override;

    // Moves up to `length` of the bytes that are left to a socket; as of splice(2).
    ssize_t moveTo(int socket, std::size_t length) const;

private:
    // A block is immutable to those who hold it; where its bytes have got to is not their business.
    mutable std::unique_ptr<Pipe> pipe;
    mutable std::size_t left;
};

}  // namespace platform
