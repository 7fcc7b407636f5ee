#include "Host/settings/UnixExchange.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

namespace vantryhost {

using platform::FileDescriptor;
using Step = ExchangeFailure::Step;

namespace {

bool sendAll(int socket, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t length = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (length < 0 && errno == EINTR) continue;
        if (length < 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(length));
    }
    return shutdown(socket, SHUT_WR) == 0;
}

std::optional<std::string> receiveAll(int socket) {
    std::string reply;
    char buffer[16 * 1024];
    for (;;) {
        const ssize_t length = recv(socket, buffer, sizeof buffer, 0);
        if (length < 0 && errno == EINTR) continue;
        if (length < 0) return std::nullopt;
        if (length == 0) return reply;
        reply.append(buffer, static_cast<std::size_t>(length));
    }
}

}  // namespace

bool ExchangeFailure::isNotRunning() const {
    return step == Step::connect && (error == ENOENT || error == ECONNREFUSED);
}

bool ExchangeFailure::isNotPermitted() const { return error == EACCES || error == EPERM; }

int connectTo(const char* path, int socket) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    return connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

std::variant<std::string, ExchangeFailure> exchange(const char* socketPath,
                                                    std::string_view request,
                                                    std::chrono::seconds longestWait) {
    const timeval wait{longestWait.count(), 0};
    const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
    if (connectTo(socketPath, socket.get()) != 0) return ExchangeFailure{Step::connect, errno};
    if (!sendAll(socket.get(), request)) return ExchangeFailure{Step::send, errno};
    auto reply = receiveAll(socket.get());
    if (!reply) return ExchangeFailure{Step::receive, errno};
    return *std::move(reply);
}

}  // namespace vantryhost
