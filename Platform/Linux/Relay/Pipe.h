// Kernel pipes that carry bytes from one socket to another without bringing them into the process.
// A pipe is taken for one block of bytes and given back, empty, when the block has been moved on;
// each thread keeps a few for the next block, and the number in use at any time is bounded, so that
// peers which do not read cannot tie up descriptors and memory without end.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "Platform/Common/Data.h"
#include "Platform/Linux/FileDescriptor.h"

namespace platform {

class Pipe {
public:
    // A pipe of this thread's or a new one; null when there are too many, the system has none, or
    // the descriptors run out.
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
    // Copies up to `length` bytes out into memory; as of read(2).
    ssize_t read(char* bytes, std::size_t length);

private:
    Pipe(FileDescriptor readingEnd, FileDescriptor writingEnd, std::size_t capacity);

    FileDescriptor readEnd;
    FileDescriptor writeEnd;
    std::size_t capacity_;
};

// The bytes that lie in a pipe, for the one reader that filled it and hands them on in blocks, and
// the one writer that empties it. Positions count from the first byte.
class PipeContents {
public:
    PipeContents(std::unique_ptr<Pipe> filledPipe, std::size_t contentLength)
        : pipe(std::move(filledPipe)), length(contentLength) {}
    ~PipeContents();
    PipeContents(const PipeContents&) = delete;
    PipeContents& operator=(const PipeContents&) = delete;

    // For the reader. Counts the next bytes as handed on and returns their position.
    std::size_t deliver(std::size_t count) { return std::exchange(delivered, delivered + count); }
    std::size_t undelivered() const { return length - delivered; }
    // All that is not handed on, in memory. Fewer bytes if that fails.
    std::string takeUndelivered();

    // For the writer. Moves up to `count` bytes that begin at `start` to a socket; as of splice(2).
    // Bytes before them that were not moved are thrown away.
    ssize_t moveTo(int socket, std::size_t start, std::size_t count);

private:
    bool skipTo(std::size_t start);

    std::unique_ptr<Pipe> pipe;
    const std::size_t length;
    std::size_t delivered = 0;
    std::size_t removed = 0;
};

// One block of them. It can be moved on once.
class PipeBlock final : public Data::Storage {
public:
    PipeBlock(std::shared_ptr<PipeContents> pipeContents, std::size_t startPosition)
        : contents(std::move(pipeContents)), start(startPosition) {}

    const std::shared_ptr<PipeContents> contents;
    const std::size_t start;
};

}  // namespace platform
