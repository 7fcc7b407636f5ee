#include "Platform/Linux/Relay/ConnectionAcceptor.h"

#include <cerrno>
#include <utility>

#include "Platform/Linux/Dispatch/EventLoop.h"
#include "Platform/Linux/PlatformLog.h"
#include "Platform/Linux/SystemError.h"

namespace platform {
namespace {

constexpr double secondsOfPause = 0.1;

// The listener and the handler, shared by all loops.
struct Listening {
    FileDescriptor listener;
    ConnectionAcceptor::Handler handler;
};

}  // namespace

class ConnectionAcceptor::OnOneLoop final : public EventLoop::Source,
                                            public std::enable_shared_from_this<OnOneLoop> {
public:
    OnOneLoop(EventLoop& eventLoop, std::shared_ptr<const Listening> shared)
        : loop(eventLoop), listening(std::move(shared)) {}

    void start() {
        if (isStopped) return;
        // One connection wakes one loop. Each event takes one, and what waits behind it is the next
        // event, here or on a loop that is free: to ask for more than there are costs a socket.
        if (loop.watch(listening->listener.get(), EPOLLIN | EPOLLEXCLUSIVE, *this) != 0)
            return startLater();
        isWatching = true;
    }
    void stop() {
        isStopped = true;
        pause();
        listening = nullptr;
    }

    void handleEvents(std::uint32_t) override {
        if (!isStopped) acceptOne();
    }

private:
    void acceptOne() {
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        FileDescriptor connection(::accept4(listening->listener.get(),
                                            reinterpret_cast<sockaddr*>(&peer), &length,
                                            SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (connection) {
            isShort = false;
            return listening->handler(std::move(connection), peer);
        }
        // Another loop has taken it, or it is gone by now.
        if (errno == EAGAIN || errno == ECONNABORTED || errno == EINTR) return;
        if (!std::exchange(isShort, true))
            platformLog.error("No connection can be accepted now: %{public}s",
                              systemError(errno).localizedDescription);
        pause();
        startLater();
    }
    void pause() {
        if (std::exchange(isWatching, false)) loop.stopWatching(listening->listener.get());
        loop.forget(*this);
    }
    void startLater() {
        loop.after(secondsOfPause, [self = shared_from_this()] { self->start(); });
    }

    EventLoop& loop;
    std::shared_ptr<const Listening> listening;
    bool isWatching = false;
    bool isStopped = false;
    bool isShort = false;  // of descriptors or memory, say, and has said so
};

ConnectionAcceptor::ConnectionAcceptor(FileDescriptor listener, Handler handler) {
    const auto listening =
        std::make_shared<const Listening>(Listening{std::move(listener), std::move(handler)});
    for (const auto& loop : EventLoopPool::shared().loops()) {
        const auto part = std::make_shared<OnOneLoop>(*loop, listening);
        loop->post([part] { part->start(); });
        accepting.push_back(part);
    }
}

ConnectionAcceptor::~ConnectionAcceptor() {
    std::size_t next = 0;
    for (const auto& loop : EventLoopPool::shared().loops())
        loop->post([part = accepting[next++]] { part->stop(); });
}

}  // namespace platform
