#include "Platform/Linux/Relay/WatchedSocket.h"

#include <sys/epoll.h>

#include <utility>

namespace platform {
namespace {

// Each change is reported once. Most sockets never fill up, and each report costs.
constexpr std::uint32_t whenReadable = EPOLLIN | EPOLLPRI | EPOLLRDHUP | EPOLLET;
constexpr std::uint32_t whenReadableOrWritable = whenReadable | EPOLLOUT;

}  // namespace

WatchedSocket::WatchedSocket(EventLoop& eventLoop, FileDescriptor socket,
                             EventLoop::Source& eventSource)
    : loop(eventLoop), descriptor_(std::move(socket)), source(eventSource) {}

void WatchedSocket::close() {
    if (std::exchange(isWatched, false)) loop.forget(source);
    descriptor_ = FileDescriptor();
}

void WatchedSocket::awaitReading() {
    mayRead_ = false;
    if (!isWatched) watchFor(whenReadable);
}

void WatchedSocket::awaitWriting() {
    mayWrite_ = false;
    if (!isWatchedForWriting) watchFor(whenReadableOrWritable);
}

void WatchedSocket::awaitConnection() { watchFor(whenReadableOrWritable); }

void WatchedSocket::noteConnection(std::uint32_t events) {
    mayRead_ = false;
    noteEvents(events);
}

void WatchedSocket::noteEvents(std::uint32_t events) {
    if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) peerSeemsEnded_ = true;
    if ((events & EPOLLPRI) != 0) hasUrgentBytes_ = true;
    if ((events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) mayRead_ = true;
    if ((events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0) mayWrite_ = true;
}

// What has changed since the attempt is reported at once.
void WatchedSocket::watchFor(std::uint32_t events) {
    const int error = isWatched ? loop.changeWatch(descriptor(), events, source)
                                : loop.watch(descriptor(), events, source);
    if (error != 0) return fail(error);
    isWatched = true;
    isWatchedForWriting = (events & EPOLLOUT) != 0;
}

}  // namespace platform
