// A throw-away network for one test process: the process moves into a network namespace of its own
// (without root, into a user namespace too), with a veth link to a second namespace in which a
// server echoes TCP and UDP and discards TCP. Everything vanishes with the process.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

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

    // Moves the calling process, which has no other thread, into the lab of another one.
    static bool enterThatOf(pid_t process);

    // The server's address as the client reaches it.
    static const char* serverAddress(int family) {
        return family == AF_INET ? "10.77.0.2" : "fd77::2";
    }
    // Another address of the server (IPv4), behind the client's default route.
    static const char* farServerAddress() { return "10.88.0.1"; }
    std::size_t bytesAtServer() const { return serverBytes; }

    // Runs a shell command in the client's namespace; its standard output.
    static std::string run(const std::string& command);

private:
    void serve();
    void serveUntilStopped();
    void echoDatagram(int descriptor);
    bool serveConnection(int descriptor, const std::set<int>& discarded);

    std::atomic<int> serverThreadId{0};
    std::atomic<bool> isLinked{false};
    std::atomic<bool> isServing{false};
    std::atomic<bool> isStopping{false};
    std::atomic<std::size_t> serverBytes{0};
    std::vector<char> buffer = std::vector<char>(std::size_t{1} << 20);  // the server's
    std::thread server;
};

// A client's socket that closes itself. Sending and receiving give up after five seconds.
class ClientSocket {
public:
    ClientSocket(int family, int type);
    ~ClientSocket();
    ClientSocket(ClientSocket&& other) noexcept : descriptor_(other.descriptor_) {
        other.descriptor_ = -1;
    }
    ClientSocket& operator=(ClientSocket&&) = delete;

    // Each gives 0 or the errno.
    int connectTo(const char* address, std::uint16_t port);
    int send(std::size_t bytes);
    int sendTo(const char* address, std::uint16_t port, std::size_t bytes);
    // Receives exactly that many bytes.
    int receive(std::size_t bytes);
    // Sends a few bytes and waits for their echo.
    int exchange(std::size_t bytes = 5);

    int descriptor() const { return descriptor_; }

private:
    int descriptor_;
};

// Waits until `condition` holds, five seconds at most; whether it does.
bool eventually(const std::function<bool()>& condition);

}  // namespace platform::interception
