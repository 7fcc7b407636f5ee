// Plain blocking sockets, for the far ends of what is under test.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include "Platform/Linux/FileDescriptor.h"

namespace platform {

// A listener, or a bound datagram socket, at a numeric address; without a port on one of its own.
// Sockets that it accepts have TCP_NODELAY.
FileDescriptor listenOn(const std::string& address, std::uint16_t port = 0, int type = SOCK_STREAM);
inline FileDescriptor listenOnLoopback() { return listenOn("127.0.0.1"); }
std::uint16_t portOf(const FileDescriptor& socket);
// The numeric address of a connected socket's far end.
std::string peerAddressOf(const FileDescriptor& socket);
// Connects to a numeric address and waits for it.
FileDescriptor connectTo(const std::string& address, std::uint16_t port);
FileDescriptor acceptFrom(const FileDescriptor& listener);

struct SocketPair {
    FileDescriptor near;  // non-blocking, as the platform gets it
    FileDescriptor far;
};
SocketPair connectedPair();

void makeNonBlocking(const FileDescriptor& socket);
// Closing the socket will reset its connection.
void makeClosingAbortive(const FileDescriptor& socket);
void sendAll(const FileDescriptor& socket, std::string_view bytes);
// Reads until `length` bytes are there or the stream ends; `lastError` gets the errno of a failure.
std::string receive(const FileDescriptor& socket, std::size_t length, int* lastError = nullptr);
std::string receiveToEnd(const FileDescriptor& socket, int* lastError = nullptr);

// Pseudo-random bytes, the same for the same seed.
std::string randomBytes(std::size_t length, std::uint32_t seed);

// A value that a callback delivers, and a test waits for.
template <class T>
class Awaited {
public:
    auto put() {
        return [state = promise](T value) { state->set_value(std::move(value)); };
    }
    bool isThere(double seconds = 20) {
        return future.wait_for(std::chrono::duration<double>(seconds)) == std::future_status::ready;
    }
    // Ends the test's patience after 20 seconds by throwing.
    T get() {
        if (!isThere()) throw std::runtime_error("nothing came");
        return future.get();
    }

private:
    std::shared_ptr<std::promise<T>> promise = std::make_shared<std::promise<T>>();
    std::future<T> future = promise->get_future();
};

}  // namespace platform
