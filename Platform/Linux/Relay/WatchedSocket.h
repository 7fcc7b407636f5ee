// The descriptor of a stream socket as its event loop sees it: whether reading or writing is worth an
// attempt, whether its peer seems to have ended, and the error that made it useless. Used by one
// StreamSocket and its two directions, on the loop's thread; it owns the descriptor.
#pragma once

#include <cstdint>

#include "Platform/Linux/Dispatch/EventLoop.h"
#include "Platform/Linux/FileDescriptor.h"

namespace platform {

class WatchedSocket {
public:
    // The loop reports to `source`, of which this is a part.
    WatchedSocket(EventLoop& loop, FileDescriptor descriptor, EventLoop::Source& source);
    ~WatchedSocket() { close(); }
    WatchedSocket(const WatchedSocket&) = delete;
    WatchedSocket& operator=(const WatchedSocket&) = delete;

    int descriptor() const { return descriptor_.get(); }
    void close();

    // Until an attempt says otherwise.
    bool mayRead() const { return mayRead_; }
    bool mayWrite() const { return mayWrite_; }
    // An event said so; the end comes behind the bytes.
    bool peerSeemsEnded() const { return peerSeemsEnded_; }
    // Urgent bytes have come, now or earlier: the system ends each read at the mark, and a read that
    // moves bytes through a pipe stops at it for good.
    bool hasUrgentBytes() const { return hasUrgentBytes_; }
    // 0 or an errno that every operation answers from then on.
    int failure() const { return failure_; }
    void fail(int error) { failure_ = error; }

    // The descriptor has nothing to give or take now: its next change is reported. A failure to
    // watch it is one of the descriptor.
    void awaitReading();
    void awaitWriting();
    // Connecting is under way; its end is an event.
    void awaitConnection();
    void noteConnection(std::uint32_t events);
    void noteEvents(std::uint32_t events);

private:
    void watchFor(std::uint32_t events);

    EventLoop& loop;
    FileDescriptor descriptor_;
    EventLoop::Source& source;
    bool isWatched = false;
    bool isWatchedForWriting = false;
    bool mayRead_ = true;
    bool mayWrite_ = true;
    bool peerSeemsEnded_ = false;
    bool hasUrgentBytes_ = false;
    int failure_ = 0;
};

}  // namespace platform
