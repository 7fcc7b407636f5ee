#include "Tests/Platform/Linux/Interception/InterceptionLab.h"

#include <poll.h>
#include <sys/time.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

#include "Platform/Linux/Network/SocketAddress.h"
#include "Tests/Platform/Linux/Sockets.h"

namespace platform::interception {

namespace {

struct Service {
    int type;
    std::uint16_t port;
};
// The datagram sockets come first.
constexpr Service services[] = {{SOCK_DGRAM, InterceptionLab::echoPort},
                                {SOCK_STREAM, InterceptionLab::echoPort},
                                {SOCK_STREAM, InterceptionLab::discardPort}};

int failureOf(ssize_t result) { return result < 0 ? errno : 0; }

}  // namespace

InterceptionLab::InterceptionLab() {
    if (!network) throw std::runtime_error("no network namespaces here");
    for (const auto& [type, port] : services)
        for (const int family : {AF_INET, AF_INET6}) {
            bound.push_back(network->listenInWorld(serverAddress(family), port, type));
            if (!bound.back()) throw std::runtime_error("the server cannot listen");
            makeNonBlocking(bound.back());
        }
    server = std::thread([this] { serve(); });
}

InterceptionLab::~InterceptionLab() {
    isStopping = true;
    server.join();
}

void InterceptionLab::serve() {
    std::vector<pollfd> polled;
    for (const FileDescriptor& socket : bound) polled.push_back({socket.get(), POLLIN, 0});
    while (!isStopping) {
        poll(polled.data(), polled.size(), 20);
        for (std::size_t index = polled.size(); index-- > 0;) {
            const auto [descriptor, events, happened] = polled[index];
            if (happened == 0) continue;
            if (index < 2) {
                echoDatagram(descriptor);
            } else if (index < bound.size()) {
                for (int accepted; (accepted = accept4(descriptor, nullptr, nullptr, 0)) >= 0;) {
                    if (index >= 4) discarded.insert(accepted);
                    polled.push_back({accepted, POLLIN, 0});
                }
            } else if (!serveConnection(descriptor)) {
                discarded.erase(descriptor);
                close(descriptor);
                polled.erase(polled.begin() + static_cast<std::ptrdiff_t>(index));
            }
        }
    }
    for (std::size_t index = bound.size(); index < polled.size(); ++index) close(polled[index].fd);
}

void InterceptionLab::echoDatagram(int descriptor) {
    SocketAddress from;
    socklen_t length = sizeof from.ipv6;
    const auto count = recvfrom(descriptor, buffer.data(), buffer.size(), 0, &from.any, &length);
    if (count < 0) return;
    serverBytes += static_cast<std::size_t>(count);
    sendto(descriptor, buffer.data(), static_cast<std::size_t>(count), 0, &from.any, length);
}

// False when the connection has ended.
bool InterceptionLab::serveConnection(int descriptor) {
    if (discarded.contains(descriptor))
        return recv(descriptor, buffer.data(), buffer.size(), MSG_TRUNC) > 0;
    const auto count = recv(descriptor, buffer.data(), buffer.size(), 0);
    if (count <= 0) return false;
    serverBytes += static_cast<std::size_t>(count);
    ::send(descriptor, buffer.data(), static_cast<std::size_t>(count), MSG_NOSIGNAL);
    return true;
}

ClientSocket::ClientSocket(int family, int type)
    : socket(::socket(family, type | SOCK_CLOEXEC, 0)) {
    const timeval patience{5, 0};
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
}

int ClientSocket::connectTo(const char* address, std::uint16_t port) {
    const auto remote = SocketAddress::fromNumeric(address, port).value();
    return failureOf(connect(socket.get(), &remote.any, remote.length));
}

int ClientSocket::send(std::size_t bytes) {
    const std::vector<char> content(bytes, 'x');
    for (std::size_t sent = 0; sent < bytes;) {
        const auto count = ::send(socket.get(), content.data() + sent, bytes - sent, MSG_NOSIGNAL);
        if (count < 0) return errno;
        sent += static_cast<std::size_t>(count);
    }
    return 0;
}

int ClientSocket::sendTo(const char* address, std::uint16_t port, std::size_t bytes) {
    const std::vector<char> content(bytes, 'x');
    const auto remote = SocketAddress::fromNumeric(address, port).value();
    return failureOf(sendto(socket.get(), content.data(), bytes, 0, &remote.any, remote.length));
}

int ClientSocket::receive(std::size_t bytes) {
    int error = ESHUTDOWN;
    return platform::receive(socket, bytes, &error).size() == bytes ? 0 : error;
}

int ClientSocket::exchange(std::size_t bytes) {
    const int error = send(bytes);
    return error != 0 ? error : receive(bytes);
}

}  // namespace platform::interception
