#include "Tests/Platform/Linux/Sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <random>
#include <stdexcept>

namespace platform {
namespace {

struct Address {
    sockaddr_storage storage{};
    socklen_t length = 0;

    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
};

Address addressOf(int family, const std::string& text, std::uint16_t port) {
    Address address;
    if (family == AF_INET6) {
        auto& v6 = reinterpret_cast<sockaddr_in6&>(address.storage);
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(port);
        ::inet_pton(AF_INET6, text.c_str(), &v6.sin6_addr);
        address.length = sizeof v6;
    } else {
        auto& v4 = reinterpret_cast<sockaddr_in&>(address.storage);
        v4.sin_family = AF_INET;
        v4.sin_port = htons(port);
        ::inet_pton(AF_INET, text.c_str(), &v4.sin_addr);
        address.length = sizeof v4;
    }
    return address;
}

}  // namespace

FileDescriptor listenOnLoopback(int family, int backlog) {
    FileDescriptor listener(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    auto address = addressOf(family, family == AF_INET6 ? "::1" : "127.0.0.1", 0);
    const int yes = 1;
    ::setsockopt(listener.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    EXPECT_EQ(::bind(listener.get(), address.get(), address.length), 0);
    EXPECT_EQ(::listen(listener.get(), backlog), 0);
    return listener;
}

std::uint16_t portOf(const FileDescriptor& socket) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
    // The port lies at the same place in both families.
    return ntohs(reinterpret_cast<sockaddr_in&>(address).sin_port);
}

FileDescriptor connectTo(const std::string& text, std::uint16_t port) {
    const int family = text.find(':') == std::string::npos ? AF_INET : AF_INET6;
    FileDescriptor socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    auto address = addressOf(family, text, port);
    if (::connect(socket.get(), address.get(), address.length) != 0) return {};
    return socket;
}

FileDescriptor acceptFrom(const FileDescriptor& listener) {
    return FileDescriptor(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

SocketPair connectedPair() {
    const auto listener = listenOnLoopback();
    auto far = connectTo("127.0.0.1", portOf(listener));
    auto near = acceptFrom(listener);
    makeNonBlocking(near);
    return {std::move(near), std::move(far)};
}

void makeNonBlocking(const FileDescriptor& socket) {
    ::fcntl(socket.get(), F_SETFL, ::fcntl(socket.get(), F_GETFL) | O_NONBLOCK);
}

void sendAll(const FileDescriptor& socket, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw std::runtime_error("the far end cannot send");
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

std::string receive(const FileDescriptor& socket, std::size_t length, int* lastError) {
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

std::string receiveToEnd(const FileDescriptor& socket, int* lastError) {
    return receive(socket, std::string::npos, lastError);
}

std::string randomBytes(std::size_t length, std::uint32_t seed) {
    std::mt19937_64 random(seed);
    std::string bytes(length, '\0');
    for (std::size_t i = 0; i < length; i += 8) {
        const std::uint64_t word = random();
        for (std::size_t j = 0; j < 8 && i + j < length; ++j)
            bytes[i + j] = static_cast<char>(word >> (8 * j));
    }
    return bytes;
}

}  // namespace platform
