// A TCP socket of one event loop: it connects, reads, writes and ends, always without waiting. The
// two ends of a relay are made of it. Everything here happens on the loop's thread. Operations are
// begun in a call and done in the loop's turns; the owner hears of each from there, never inside the
// call. Small messages pass through memory; a stream that fills the small buffer is moved through
// kernel pipes instead.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Common/Completion.h"
#include "Platform/Common/Data.h"
#include "Platform/Linux/Dispatch/EventLoop.h"
#include "Platform/Linux/FileDescriptor.h"

namespace platform {

class PipeBlock;
class PipeContents;

class StreamSocket final : public EventLoop::Source,
                           public std::enable_shared_from_this<StreamSocket> {
public:
    // Who uses the socket. Errors are errno values, 0 is none. Each call answers one operation; the
    // socket may be ended from inside.
    class Owner {
    public:
        virtual ~Owner() = default;
        virtual void connectDone(StreamSocket& socket, int error);
        // `isEnd`: the stream ends behind these bytes. Bytes, end or error; an end may come along
        // with the last bytes.
        virtual void readDone(Data data, bool isEnd, int error) = 0;
        virtual void writeDone(int error) = 0;
    };

    // What an orderly end waits for besides its own bytes.
    enum class Farewell {
        untilDelivered,  // nothing: it is over when the peer's system has all bytes
        untilPeerEnds,   // a short while for the peer to end too, so that it reads an end, no reset
    };

    // `owner` has to outlive the socket or end it.
    StreamSocket(EventLoop& loop, FileDescriptor socket, Owner& owner);
    ~StreamSocket() override;

    // Begins to connect. Returns an errno if it failed at once; else `connectDone` follows.
    int connect(const sockaddr* address, socklen_t length);

    // One of each at a time. A read delivers at least `minimum` bytes unless the stream ends first.
    void read(std::size_t minimum, std::size_t maximum);
    void write(Data data);

    // Gives up the read under way; no answer follows.
    void stopReading();
    // Ends the sending direction behind the bytes of the write under way, to which no answer
    // follows.
    void endWriting();

    // Both end the use of the socket: no answer follows. `finish` still brings the bytes of a write
    // under way and those that the system holds to the peer, throws away what the peer sends, and
    // then closes; a peer that takes nothing for long is given up. `reset` throws everything away,
    // and the peer sees a reset.
    void finish(Farewell farewell);
    void reset();

    // Runs once, in a turn of its own, when the descriptor has been closed.
    void setCloseHandler(Completion<> handler) { closeHandler = std::move(handler); }

    void handleEvents(std::uint32_t events) override;
    void takeTurn() override;

private:
    enum class Phase : std::uint8_t { connecting, open, finishing, closed };
    struct Received {
        Data data;
        bool isEnd = false;
        int error = 0;

        static Received ended() { return {Data(), true, 0}; }
        static Received failed(int error) { return {Data(), false, error}; }
        bool isNothing() const { return data.isEmpty() && !isEnd && error == 0; }
    };
    // What a finishing socket remembers.
    struct Finishing {
        std::shared_ptr<StreamSocket> self;  // nobody else holds it any more
        Farewell farewell;
        bool isLookedAfter = false;
        std::optional<std::size_t> undelivered;  // as of the last check
        TimerHeap::Clock::time_point nextCheck;
        double interval = 0.1;
        double sinceProgress = 0;
        double total = 0;
    };

    void turn();
    void noteEvents(std::uint32_t events);
    void finishConnecting(std::uint32_t events);
    void tryReading();
    void askForReading();
    Received receive();
    Received receiveIntoMemory(std::size_t wanted);
    Received receiveIntoPipe();
    Received nextBlockOfPipe();
    void takeAheadIntoMemory();
    Received receiveAtLeast();
    Received nothingReceived(ssize_t result);
    void lookForEnd(Received& received);
    bool mayAnswerReading() const { return mayRead || hasReadEnd || failure != 0 || ahead; }
    // True if there was something to do and the socket took it, or part of it.
    bool tryWriting();
    void answerWriting(int error);
    bool hold(const PipeBlock* block);
    void writeHeldSoon();
    // 0 when all is written, EAGAIN when the rest has to wait, else an errno.
    int writeOn();
    int writeBlockOn(const PipeBlock* block);
    int writeHeld();
    int noteWriting(int error);
    void shutDownWriting();
    // The descriptor has nothing to give or take now: its next change is reported.
    void awaitReading();
    void awaitWriting();
    void watchFor(std::uint32_t events);

    void continueFinishing();
    bool hasDeliveredWriting();
    void discardInput();
    bool mayCloseNow() const;
    std::size_t undeliveredBytes() const;
    class FinishingOfThread;
    void checkFinishing(TimerHeap::Clock::time_point now);
    void close();

    EventLoop& loop;
    FileDescriptor descriptor;
    Owner* owner;
    Phase phase = Phase::open;
    bool isWatched = false;
    bool isWatchedForWriting = false;
    bool mayRead = true;  // until an attempt says otherwise
    bool mayWrite = true;
    bool peerSeemsEnded = false;  // an event said so; the end comes behind the bytes
    bool hasReadEnd = false;
    bool isReading = false;
    bool isWriting = false;
    bool isEndingWriting = false;
    bool hasShutDownWriting = false;
    bool isBulk = false;  // the last reads were large
    int failure = 0;      // of the descriptor itself; every operation answers it
    std::size_t minimum = 0;
    std::size_t maximum = 0;
    std::string gathered;                 // of a read with a minimum
    std::shared_ptr<PipeContents> ahead;  // read, and to be handed on in further blocks
    Data writing;
    std::size_t written = 0;
    // Blocks whose writing was answered already, as more of the same pipe was to follow.
    std::shared_ptr<PipeContents> held;
    std::size_t heldStart = 0;
    std::size_t heldLength = 0;
    bool isWritingHeldSoon = false;
    Completion<> closeHandler;
    std::unique_ptr<Finishing> finishing;
};

}  // namespace platform
