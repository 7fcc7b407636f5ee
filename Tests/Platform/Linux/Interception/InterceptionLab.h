// A throw-away network for one test process: the test's network, in whose world a server echoes TCP
// and UDP and discards TCP. Everything vanishes with the process.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Linux/FileDescriptor.h"
#include "Tests/Platform/Linux/TestNetwork.h"

namespace platform::interception {

class InterceptionLab {
public:
    static constexpr std::uint16_t echoPort = 7007;
    // Connections to this one are only read.
    static constexpr std::uint16_t discardPort = 7009;

    // Must come before any other thread of the process.
    InterceptionLab();
    ~InterceptionLab();
    InterceptionLab(const InterceptionLab&) = delete;
    InterceptionLab& operator=(const InterceptionLab&) = delete;

    static const char* serverAddress(int family) {
        return family == AF_INET ? TestNetwork::serverIPv4 : TestNetwork::serverIPv6;
    }
    std::size_t bytesAtServer() const { return serverBytes; }

private:
    void serve();
    void echoDatagram(int descriptor);
    bool serveConnection(int descriptor);

    const std::unique_ptr<TestNetwork> network = TestNetwork::make();
    std::vector<FileDescriptor> bound;
    std::atomic<bool> isStopping{false};
    std::atomic<std::size_t> serverBytes{0};
    // The server's own.
    std::vector<char> buffer = std::vector<char>(std::size_t{1} << 20);
    std::set<int> discarded;
    std::thread server;
};

// A client's socket. Sending and receiving give up after five seconds.
class ClientSocket {
public:
    ClientSocket(int family, int type);

    // Each gives 0 or the errno.
    int connectTo(const char* address, std::uint16_t port);
    int send(std::size_t bytes);
    int sendTo(const char* address, std::uint16_t port, std::size_t bytes);
    // Receives exactly that many bytes.
    int receive(std::size_t bytes);
    // Sends a few bytes and waits for their echo.
    int exchange(std::size_t bytes = 5);

    int descriptor() const { return socket.get(); }

private:
    FileDescriptor socket;
};

}  // namespace platform::interception
