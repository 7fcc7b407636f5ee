// A throw-away network for one test process: the test's network, in whose world a server echoes TCP
// and UDP. Everything vanishes with the process.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/time.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Tests/Platform/Linux/Sockets.h"
#include "Tests/Platform/Linux/TestNetwork.h"

namespace platform::interception {

class InterceptionLab {
public:
    static constexpr std::uint16_t echoPort = 7007;

    // Must come before any other thread of the process.
    InterceptionLab() {
        if (!network) throw std::runtime_error("no network namespaces here");
        // The datagram sockets come first, then the listeners.
        for (const int type : {SOCK_DGRAM, SOCK_STREAM})
            for (const int family : {AF_INET, AF_INET6})
                sockets.push_back(network->listenInWorld(serverAddress(family), echoPort, type));
        server = std::thread([this] { serve(); });
    }
    ~InterceptionLab() {
        isStopping = true;
        server.join();
    }
    InterceptionLab(const InterceptionLab&) = delete;
    InterceptionLab& operator=(const InterceptionLab&) = delete;

    static const char* serverAddress(int family) {
        return family == AF_INET ? TestNetwork::serverIPv4 : TestNetwork::serverIPv6;
    }
    std::size_t bytesAtServer() const { return serverBytes; }

    const std::unique_ptr<const TestNetwork> network = TestNetwork::make();

private:
    void serve() {
        while (!isStopping) {
            std::vector<pollfd> polled;
            for (const auto& socket : sockets) polled.push_back({socket.get(), POLLIN, 0});
            poll(polled.data(), polled.size(), 20);
            for (std::size_t index = polled.size(); index-- > 0;) {
                if (polled[index].revents == 0) continue;
                const bool isListener = index == 2 || index == 3;
                if (isListener)
                    sockets.push_back(acceptFrom(sockets[index]));
                else if (!echo(polled[index].fd) && index > 3)
                    sockets.erase(sockets.begin() + static_cast<std::ptrdiff_t>(index));
            }
        }
    }
    // False when a connection has ended.
    bool echo(int socket) {
        SocketAddress from;
        socklen_t length = sizeof from.ipv6;
        const auto count = recvfrom(socket, buffer.data(), buffer.size(), 0, &from.any, &length);
        if (count <= 0) return false;
        serverBytes += static_cast<std::size_t>(count);
        sendto(socket, buffer.data(), static_cast<std::size_t>(count), MSG_NOSIGNAL, &from.any,
               length);
        return true;
    }

    std::atomic<bool> isStopping{false};
    std::atomic<std::size_t> serverBytes{0};
    // The server's own.
    std::vector<FileDescriptor> sockets;
    std::vector<char> buffer = std::vector<char>(std::size_t{1} << 20);
    std::thread server;
};

// A client's socket. Sending and receiving give up after five seconds; each gives 0 or the errno.
class ClientSocket {
public:
    ClientSocket(int family, int type) : socket(::socket(family, type | SOCK_CLOEXEC, 0)) {
        const timeval patience{5, 0};
        setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    }

    int connectTo(const char* address, std::uint16_t port) {
        const auto remote = SocketAddress::fromNumeric(address, port).value();
        return connect(socket.get(), &remote.any, remote.length) < 0 ? errno : 0;
    }
    std::uint16_t localPort() const { return portOf(socket); }
    int bindTo(std::uint16_t localPort, int family = AF_INET) {
        const char* const anyAddress = family == AF_INET ? "0.0.0.0" : "::";
        const auto local = SocketAddress::fromNumeric(anyAddress, localPort).value();
        return bind(socket.get(), &local.any, local.length) < 0 ? errno : 0;
    }
    int send(std::size_t bytes) {
        const std::string content(bytes, 'x');
        for (std::size_t sent = 0; sent < bytes;) {
            const auto count =
                ::send(socket.get(), content.data() + sent, bytes - sent, MSG_NOSIGNAL);
            if (count < 0) return errno;
            sent += static_cast<std::size_t>(count);
        }
        return 0;
    }
    // A datagram of one byte.
    int sendTo(const char* address, std::uint16_t port) {
        const auto remote = SocketAddress::fromNumeric(address, port).value();
        return sendto(socket.get(), "x", 1, 0, &remote.any, remote.length) < 0 ? errno : 0;
    }
    // Receives exactly that many bytes.
    int receive(std::size_t bytes) {
        int error = ESHUTDOWN;
        return platform::receive(socket, bytes, &error).size() == bytes ? 0 : error;
    }
    // Sends a few bytes and waits for their echo.
    int exchange(std::size_t bytes = 5) {
        const int error = send(bytes);
        return error != 0 ? error : receive(bytes);
    }

    int descriptor() const { return socket.get(); }

private:
    FileDescriptor socket;
};

}  // namespace platform::interception
