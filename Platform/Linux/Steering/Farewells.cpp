#include "Platform/Linux/Steering/Farewells.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace platform::steering {

namespace {

constexpr std::chrono::milliseconds betweenDeliveryLooks{5};
// As long as a copy is kept, the application's own closing does not reach the kernel.
constexpr std::chrono::seconds longestDelivery{1};

// Whether the peer has all that was sent, or never will.
bool isDelivered(const FileDescriptor& socket) {
    tcp_info info{};
    socklen_t length = sizeof info;
    if (::getsockopt(socket.get(), IPPROTO_TCP, TCP_INFO, &info, &length) != 0) return true;
    return info.tcpi_state != TCP_FIN_WAIT1 && info.tcpi_state != TCP_LAST_ACK &&
           info.tcpi_state != TCP_CLOSING;
}

void reset(const FileDescriptor& socket) {
    sockaddr nothing{};
    nothing.sa_family = AF_UNSPEC;
    ::connect(socket.get(), &nothing, sizeof nothing);
}

}  // namespace

Farewells::Farewells() : thread([this] { serve(); }) {}

Farewells::~Farewells() {
    {
        const MutexGuard guard(lock);
        isEnding = true;
        changed.notifyAll();
    }
    thread.join();
    for (const auto& farewell : waiting) diagnosis.destroy(farewell.flow, farewell.cookie);
    for (const auto& socket : undelivered) reset(socket);
}

void Farewells::say(const FlowTuple& flow, std::uint64_t cookie) {
    const MutexGuard guard(lock);
    waiting.push_back({flow, cookie});
    changed.notifyAll();
}

void Farewells::await(std::chrono::milliseconds longest) {
    const auto deadline = Condition::Clock::now() + longest;
    for (;;) {
        {
            const MutexGuard guard(lock);
            std::erase_if(undelivered, isDelivered);
            if (waiting.empty() && !isBusy && undelivered.empty()) return;
        }
        if (Condition::Clock::now() >= deadline) return;
        std::this_thread::sleep_for(betweenDeliveryLooks);
    }
}

void Farewells::serve() {
    for (;;) {
        std::vector<Farewell> present;
        {
            const MutexGuard guard(lock);
            isBusy = false;
            awaitWork();
            if (isEnding) return;
            present.swap(waiting);
            isBusy = true;
        }
        for (const Farewell& farewell : present) end(farewell);
    }
}

void Farewells::awaitWork() {
    while (waiting.empty() && !isEnding) {
        if (undelivered.empty())
            changed.wait(lock);
        else if (!changed.waitUntil(lock, Condition::Clock::now() + longestDelivery))
            undelivered.clear();
    }
}

void Farewells::end(const Farewell& farewell) {
    const auto socket = diagnosis.find(farewell.flow);
    if (!socket || socket->cookie != farewell.cookie) return;
    auto copy = copyOf(*socket);
    if (copy && ::shutdown(copy.get(), SHUT_RDWR) == 0)
        keepUndelivered(std::move(copy));
    else
        diagnosis.destroy(farewell.flow, farewell.cookie);
}

FileDescriptor Farewells::copyOf(const SocketFacts& socket) {
    const auto holder = holders.find(socket.inode, socket.uid);
    if (!holder) return {};
    const FileDescriptor process(static_cast<int>(::syscall(SYS_pidfd_open, holder->pid, 0)));
    if (!process) return {};
    FileDescriptor copy(
        static_cast<int>(::syscall(SYS_pidfd_getfd, process.get(), holder->descriptor, 0)));
    std::uint64_t cookie = 0;
    socklen_t length = sizeof cookie;
    // The process may have put another file there meanwhile.
    const bool isIt = copy &&
                      ::getsockopt(copy.get(), SOL_SOCKET, SO_COOKIE, &cookie, &length) == 0 &&
                      cookie == socket.cookie;
    return isIt ? std::move(copy) : FileDescriptor();
}

void Farewells::keepUndelivered(FileDescriptor socket) {
    const MutexGuard guard(lock);
    std::erase_if(undelivered, isDelivered);
    if (!isDelivered(socket)) undelivered.push_back(std::move(socket));
}

}  // namespace platform::steering
