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

#include "Platform/Common/Completion.h"
#include "Platform/Common/Data.h"
#include "Platform/Linux/Dispatch/EventLoop.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Relay/StreamInput.h"
#include "Platform/Linux/Relay/StreamOutput.h"
#include "Platform/Linux/Relay/WatchedSocket.h"
#include "Platform/Linux/Result.h"

namespace platform {

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
        untilReset,      // nothing: when the peer's system has all bytes it is reset
    };

    // `owner` has to outlive the socket or end it.
    StreamSocket(EventLoop& loop, FileDescriptor socket, Owner& owner);
    ~StreamSocket() override;

    // Begins to connect. Unless that fails at once `connectDone` follows.
    Result<> connect(const sockaddr* address, socklen_t length);

    // One of each at a time. A read delivers at least `minimum` bytes unless the stream ends first.
    void read(std::size_t minimum, std::size_t maximum);
    void write(Data data);

    // Gives up the read under way; no answer follows.
    void stopReading();
    // Ends the sending direction behind the bytes of the write under way, to which no answer
    // follows.
    void endWriting();

    // From here on no byte is read or written, also none that the system holds; the operations under way
    // are not answered. To be followed by `reset`.
    void holdBack();

    // Both end the use of the socket: no answer follows. `finish` still brings the bytes of a write
    // under way and those that the system holds to the peer, throws away what the peer sends, and
    // then closes or resets; a peer that takes nothing for long is given up. `reset` throws everything away,
    // and the peer sees a reset.
    void finish(Farewell farewell);
    void reset();

    // The address and port that the peer sends to; unspecified before it is connected.
    sockaddr_storage localAddress() const;

    // Runs once, in a turn of its own, when the descriptor has been closed.
    void setCloseHandler(Completion<> handler) { closeHandler = std::move(handler); }

    void handleEvents(std::uint32_t events) override;
    void takeTurn() override;

private:
    enum class Phase : std::uint8_t { connecting, open, finishing, closed };
    // What a finishing socket remembers.
    struct Finishing {
        std::shared_ptr<StreamSocket> self;  // no one else holds it any more
        Farewell farewell;
        bool isLookedAfter = false;
        std::optional<std::size_t> undelivered;  // as of the last check
        TimerHeap::Clock::time_point nextCheck;
        double interval = 0.1;
        double sinceProgress = 0;
        double total = 0;
    };

    void finishConnecting(std::uint32_t events);
    void turn();
    void askForReading();
    void tryReading();
    // True if there was something to do and the socket took it, or part of it.
    bool tryWriting();
    void writeHeldSoon();

    void continueFinishing();
    bool hasDeliveredWriting();
    bool mayCloseNow() const;
    std::size_t undeliveredBytes() const;
    class FinishingOfThread;
    void checkFinishing(TimerHeap::Clock::time_point now);
    void close();

    EventLoop& loop;
    WatchedSocket socket;
    StreamInput input{socket};
    StreamOutput output{socket};
    Owner* owner;
    Phase phase = Phase::open;
    bool isHeldBack = false;
    bool isEndingWriting = false;
    bool isWritingHeldSoon = false;
    Completion<> closeHandler;
    std::unique_ptr<Finishing> finishing;
};

}  // namespace platform
