// Plain blocking sockets, for the far ends of what is under test.
#pragma once

#include <fcntl.h>
#include <linux/tcp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <future>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>

#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Network/SocketAddress.h"

namespace platform {

// A listener, or a bound datagram socket, at a numeric address; without a port on one of its own.
// Sockets that it accepts have TCP_NODELAY.
inline FileDescriptor listenOn(const std::string& text, std::uint16_t port = 0,
                               int type = SOCK_STREAM) {
    const auto address = SocketAddress::fromNumeric(text, port).value();
    FileDescriptor listener(::socket(address.family(), type | SOCK_CLOEXEC, 0));
    const int yes = 1;
    ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    ::setsockopt(listener.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    if (::bind(listener.get(), &address.any, address.length) != 0) return {};
    if (type == SOCK_STREAM && ::listen(listener.get(), 4096) != 0) return {};
    return listener;
}
inline FileDescriptor listenOnLoopback() { return listenOn("127.0.0.1"); }

inline std::uint16_t portOf(const FileDescriptor& socket) {
    SocketAddress address;
    socklen_t length = sizeof address.ipv6;
    ::getsockname(socket.get(), &address.any, &length);
    // The port lies at the same place in both families.
    return ntohs(address.ipv4.sin_port);
}

// The numeric address of a connected socket's far end.
inline std::string peerAddressOf(const FileDescriptor& socket) {
    SocketAddress address;
    socklen_t length = sizeof address.ipv6;
    ::getpeername(socket.get(), &address.any, &length);
    std::array<char, INET6_ADDRSTRLEN> text{};
    ::getnameinfo(&address.any, length, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST);
    return text.data();
}

// Connects to a numeric address and waits for it.
inline FileDescriptor connectTo(const std::string& text, std::uint16_t port) {
    const auto address = SocketAddress::fromNumeric(text, port).value();
    FileDescriptor socket(::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(socket.get(), &address.any, address.length) != 0) return {};
    return socket;
}

inline FileDescriptor acceptFrom(const FileDescriptor& listener) {
    return FileDescriptor(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

inline void makeNonBlocking(const FileDescriptor& socket) {
    ::fcntl(socket.get(), F_SETFL, ::fcntl(socket.get(), F_GETFL) | O_NONBLOCK);
}

// Closing the socket will reset its connection.
inline void makeClosingAbortive(const FileDescriptor& socket) {
    const linger atOnce{1, 0};
    ::setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
}

struct SocketPair {
    FileDescriptor near;  // non-blocking, as the platform gets it
    FileDescriptor far;
};
inline SocketPair connectedPair() {
    const auto listener = listenOnLoopback();
    auto far = connectTo("127.0.0.1", portOf(listener));
    auto near = acceptFrom(listener);
    makeNonBlocking(near);
    return {std::move(near), std::move(far)};
}

inline void sendAll(const FileDescriptor& socket, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw std::runtime_error("the far end cannot send");
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

// Reads until `length` bytes are there or the stream ends; `lastError` gets the errno of a failure.
inline std::string receive(const FileDescriptor& socket, std::size_t length,
                           int* lastError = nullptr) {
    std::string bytes;
    std::array<char, 65536> piece;
    while (bytes.size() < length) {
        const std::size_t wanted = std::min(piece.size(), length - bytes.size());
        const ssize_t count = ::recv(socket.get(), piece.data(), wanted, 0);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && lastError != nullptr) *lastError = errno;
        if (count <= 0) break;
        bytes.append(piece.data(), static_cast<std::size_t>(count));
    }
    return bytes;
}
inline std::string receiveToEnd(const FileDescriptor& socket, int* lastError = nullptr) {
    return receive(socket, std::string::npos, lastError);
}

// Pseudo-random bytes, the same for the same seed.
inline std::string randomBytes(std::size_t length, std::uint32_t seed) {
    std::mt19937_64 random(seed);
    std::string bytes(length + sizeof(std::uint64_t), '\0');
    for (std::size_t i = 0; i < length; i += sizeof(std::uint64_t)) {
        const std::uint64_t word = random();
        std::memcpy(bytes.data() + i, &word, sizeof word);
    }
    bytes.resize(length);
    return bytes;
}

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
