// The host application's end of a message socket, as any program may write it.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Linux/FileDescriptor.h"

namespace platform::testing {

inline FileDescriptor connected(std::string_view path) {
    FileDescriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return {};
    return client;
}

inline bool sendAll(int client, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t length = send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (length < 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(length));
    }
    return true;
}

// All that comes until the end; nothing after a reset.
inline std::optional<std::string> received(int client) {
    std::string bytes;
    char buffer[4096];
    for (;;) {
        const ssize_t length = recv(client, buffer, sizeof buffer, 0);
        if (length < 0) return std::nullopt;
        if (length == 0) return bytes;
        bytes.append(buffer, static_cast<std::size_t>(length));
    }
}

inline std::optional<std::string> exchanged(const char* path, const std::string& request) {
    const auto client = connected(path);
    if (!client || !sendAll(client.get(), request)) return std::nullopt;
    shutdown(client.get(), SHUT_WR);
    return received(client.get());
}

}  // namespace platform::testing
