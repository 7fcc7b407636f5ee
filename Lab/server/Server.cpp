#include "Lab/server/Server.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <utility>

namespace lab {
namespace {

constexpr std::chrono::milliseconds slowStreamPace{100};

// A socket that takes both address families on every local address.
Descriptor openOnEveryAddress(int type, uint16_t port) {
    Descriptor socket(::socket(AF_INET6, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int no = 0;
    const int yes = 1;
    setsockopt(socket.number(), IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof no);
    setsockopt(socket.number(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    if (bind(socket.number(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return {};
    return socket;
}

Address localAddress(int socket) {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    getsockname(socket, reinterpret_cast<sockaddr*>(&storage), &length);
    return Address::of(storage, length);
}

}  // namespace

bool Server::open() {
    epoll_ = Descriptor(epoll_create1(EPOLL_CLOEXEC));
    return static_cast<bool>(epoll_);
}

bool Server::watch(int descriptor, uint32_t events, Handler handler) {
    handlers_[descriptor] = std::move(handler);
    epoll_event event{.events = events, .data = {.fd = descriptor}};
    return epoll_ctl(epoll_.number(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

bool Server::listenForStreams(uint16_t port) {
    auto socket = openOnEveryAddress(SOCK_STREAM, port);
    if (!socket || listen(socket.number(), 4096) != 0) return false;
    const auto descriptor = listeners_.emplace_back(std::move(socket)).number();
    return watch(descriptor, EPOLLIN, [this, descriptor](uint32_t) { acceptStream(descriptor); });
}

bool Server::listenForDatagrams(uint16_t port) {
    auto socket = openOnEveryAddress(SOCK_DGRAM, port);
    const int yes = 1;
    // The addresses of the server are whole ranges; an answer may name any of them as its source.
    if (!socket ||
        setsockopt(socket.number(), IPPROTO_IPV6, IPV6_RECVPKTINFO, &yes, sizeof yes) != 0 ||
        setsockopt(socket.number(), IPPROTO_IPV6, IPV6_FREEBIND, &yes, sizeof yes) != 0)
        return false;
    auto* service =
        datagramServices_
            .emplace_back(std::make_unique<DatagramService>(std::move(socket), port, ledger_))
            .get();
    return watch(service->descriptor(), EPOLLIN, [service](uint32_t) { service->readable(); });
}

bool Server::listenForControl(const std::string& path) {
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.data(), path.size());
    unlink(path.c_str());
    if (bind(socket.number(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(socket.number(), 16) != 0)
        return false;
    const auto descriptor = listeners_.emplace_back(std::move(socket)).number();
    return watch(descriptor, EPOLLIN, [this, descriptor](uint32_t) { acceptControl(descriptor); });
}

void Server::run() {
    auto nextTick = std::chrono::steady_clock::now() + slowStreamPace;
    while (true) {
        std::array<epoll_event, 64> events;
        const auto count =
            epoll_wait(epoll_.number(), events.data(), static_cast<int>(events.size()),
                       static_cast<int>(slowStreamPace.count()));
        for (int index = 0; index < count; ++index) {
            const auto& event = events[static_cast<size_t>(index)];
            serve(event.data.fd, event.events);
        }
        if (std::chrono::steady_clock::now() < nextTick) continue;
        nextTick = std::chrono::steady_clock::now() + slowStreamPace;
        tickStreams();
    }
}

void Server::serve(int descriptor, uint32_t events) {
    const auto found = handlers_.find(descriptor);
    if (found == handlers_.end()) return;
    // A copy, as serving may end the connection and with it the entry.
    const auto handler = found->second;
    handler(events);
}

void Server::acceptStream(int listener) {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    Descriptor socket(accept4(listener, reinterpret_cast<sockaddr*>(&storage), &length,
                              SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket) return;
    const auto descriptor = socket.number();
    auto& observation =
        ledger_.connectionOpened(Address::of(storage, length), localAddress(descriptor));
    channels_[descriptor] = std::make_unique<StreamChannel>(std::move(socket), observation);
    watch(descriptor, EPOLLIN | EPOLLOUT, [this, descriptor](uint32_t events) {
        auto& channel = *channels_.at(descriptor);
        const auto readingEnded = (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) && !channel.readable();
        settle(descriptor, !readingEnded && (!(events & EPOLLOUT) || channel.writable()));
    });
}

// Forgets an ended connection; tells epoll what a living one waits for.
void Server::settle(int descriptor, bool livesOn) {
    if (!livesOn) {
        channels_.erase(descriptor);
        handlers_.erase(descriptor);
        return;
    }
    const auto& channel = *channels_.at(descriptor);
    epoll_event event{.events = (channel.wantsToRead() ? uint32_t{EPOLLIN} : 0) |
                                (channel.wantsToWrite() ? uint32_t{EPOLLOUT} : 0),
                      .data = {.fd = descriptor}};
    epoll_ctl(epoll_.number(), EPOLL_CTL_MOD, descriptor, &event);
}

void Server::tickStreams() {
    std::vector<int> descriptors;
    for (const auto& [descriptor, channel] : channels_) descriptors.push_back(descriptor);
    for (const auto descriptor : descriptors) settle(descriptor, channels_.at(descriptor)->tick());
}

// The whole ledger to whoever connects; the peer is the test that started this server, and reads.
void Server::acceptControl(int listener) {
    Descriptor socket(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    const auto text = ledger_.asJson();
    for (size_t sent = 0; sent < text.size();) {
        const auto count =
            send(socket.number(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) return;
        sent += static_cast<size_t>(count);
    }
}

}  // namespace lab
