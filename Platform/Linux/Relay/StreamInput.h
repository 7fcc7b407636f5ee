// The receiving direction of a StreamSocket. Small messages pass through memory; a stream that fills
// the small buffer is read ahead into a kernel pipe, which is handed on in the blocks that its reader
// asks for. It makes attempts when told to and never waits.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "Platform/Common/Data.h"
#include "Platform/Linux/Relay/WatchedSocket.h"

namespace platform {

class PipeContents;

class StreamInput {
public:
    // Bytes, an end that may come along with the last of them, or an error; or nothing yet.
    struct Received {
        Data data;
        bool isEnd = false;
        int error = 0;

        static Received ended() { return {Data(), true, 0}; }
        static Received failed(int error) { return {Data(), false, error}; }
        bool isNothing() const { return data.isEmpty() && !isEnd && error == 0; }
    };

    explicit StreamInput(WatchedSocket& watchedSocket) : socket(watchedSocket) {}

    // A read stays wanted until `receive` has something for it.
    void want(std::size_t minimumLength, std::size_t maximumLength);
    void giveUp() { isWanted = false; }

    // Whether `receive` may have something.
    bool mayReceive() const {
        return isWanted && (socket.mayRead() || hasEnded_ || socket.failure() != 0 || ahead);
    }
    // Whether it has and needs not ask the system.
    bool isAhead() const { return ahead != nullptr; }
    bool hasEnded() const { return hasEnded_; }
    Received receive();

    // Drops what has come. False if there may be more.
    bool discard();
    // Drops what was read ahead.
    void clear() { ahead = nullptr; }

private:
    Received receiveNow();
    Received receiveIntoMemory(std::size_t most);
    Received receiveIntoPipe();
    Received receiveAtLeast();
    Received nextBlockOfPipe();
    void takeAheadIntoMemory();
    Received nothingReceived(ssize_t result);
    bool isEndNext();
    bool mayUsePipe() const;

    WatchedSocket& socket;
    bool isWanted = false;
    bool hasEnded_ = false;
    bool isBulk = false;  // the last reads were large
    std::size_t minimum = 0;
    std::size_t maximum = 0;
    std::string gathered;                 // of a read with a minimum
    std::shared_ptr<PipeContents> ahead;  // read, and to be handed on in further blocks
};

}  // namespace platform
