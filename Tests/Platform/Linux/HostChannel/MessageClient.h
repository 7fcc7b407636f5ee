// The host application's end of a message socket, as any program may write it.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <optional>
#include <string>
#include <string_view>

#include "Tests/Platform/Linux/Sockets.h"

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

// All that comes until the end; nothing after a reset.
inline std::optional<std::string> received(const FileDescriptor& client) {
    int error = 0;
    auto bytes = receiveToEnd(client, &error);
    return error == 0 ? std::optional(std::move(bytes)) : std::nullopt;
}

inline std::optional<std::string> exchanged(const char* path, std::string_view request) {
    const auto client = connected(path);
    if (!client) return std::nullopt;
    while (!request.empty()) {
        const ssize_t length = send(client.get(), request.data(), request.size(), MSG_NOSIGNAL);
        if (length < 0) return std::nullopt;
        request.remove_prefix(static_cast<std::size_t>(length));
    }
    shutdown(client.get(), SHUT_WR);
    return received(client);
}

}  // namespace platform::testing
