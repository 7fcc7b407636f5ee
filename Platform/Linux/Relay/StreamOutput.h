// The sending direction of a StreamSocket. Blocks of a pipe that come one by one are held back and
// written together, as each write wakes the peer; bytes in memory are sent as they are. It makes
// attempts when told to and never waits.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "Platform/Common/Data.h"
#include "Platform/Linux/Relay/WatchedSocket.h"

namespace platform {

class PipeBlock;
class PipeContents;

class StreamOutput {
public:
    explicit StreamOutput(WatchedSocket& watchedSocket) : socket(watchedSocket) {}

    // One at a time.
    void begin(Data data);
    // A write is under way.
    bool isWriting() const { return isWriting_; }
    // Bytes are held whose write is over.
    bool isHolding() const { return heldLength != 0; }
    std::size_t unwritten() const;

    // Keeps the block of the write under way until more of its pipe has come. True if that is all
    // that there is to do now: the write is over.
    bool hold();
    // Writes what is held and the write under way. 0 when all is written, EAGAIN when the rest has
    // to wait, else an errno; the write is over unless it is EAGAIN.
    int write();
    // Ends the stream behind what is written. The first call counts.
    void shutDown();
    bool hasShutDown() const { return hasShutDown_; }

    // Drops what is not written.
    void clear();

private:
    int writeOn();
    int writeHeld();
    int writeMemory(std::string_view bytes);
    int writeBlock();
    const PipeBlock* block() const;
    int noteError(int error);

    WatchedSocket& socket;
    bool isWriting_ = false;
    bool hasShutDown_ = false;
    Data writing;
    std::size_t written = 0;
    // Blocks whose writing was answered already, as more of the same pipe was to follow.
    std::shared_ptr<PipeContents> held;
    std::size_t heldStart = 0;
    std::size_t heldLength = 0;
};

}  // namespace platform
