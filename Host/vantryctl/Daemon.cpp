#include "Host/vantryctl/Daemon.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "Host/vantryctl/Places.h"
#include "Platform/Common/UUID.h"
#include "Platform/Linux/FileDescriptor.h"

namespace vantryctl {

using platform::FileDescriptor;
using platform::JSONFailure;
using vantry::ExtensionMessage;
using vantry::ExtensionResponse;
using vantry::MessageType;

namespace {

constexpr timeval longestWait{15, 0};

Failure notRunning() {
    return {ExitCode::daemonNotRunning, "The daemon is not running.",
            "Start it (systemctl start vantryd), or see why it ended (journalctl -u vantryd)."};
}

Failure notPermitted() {
    return {ExitCode::notPermitted,
            "Only root and the members of the group vantry may talk to the daemon.",
            "Use sudo, or join the group (usermod -aG vantry NAME) and log in again."};
}

Failure systemFailure(const std::string& what) {
    return {ExitCode::failed, what + ": " + std::strerror(errno) + ".", ""};
}

Failure connectFailure() {
    if (errno == ENOENT || errno == ECONNREFUSED) return notRunning();
    if (errno == EACCES || errno == EPERM) return notPermitted();
    return systemFailure("The daemon cannot be reached");
}

int connectTo(const char* path, int socket) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    return connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

Outcome<FileDescriptor> connectToDaemon() {
    FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &longestWait, sizeof longestWait);
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &longestWait, sizeof longestWait);
    if (connectTo(places::messageSocket, socket.get()) != 0) return connectFailure();
    return socket;
}

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

Outcome<std::string> exchange(MessageType type) {
    const auto request = ExtensionMessage{type, {}, {}}.encode();
    auto connected = connectToDaemon();
    if (auto* failure = std::get_if<Failure>(&connected)) return std::move(*failure);
    const int socket = std::get<FileDescriptor>(connected).get();
    if (!sendAll(socket, request.value_or(""))) return systemFailure("The daemon took no message");
    auto reply = receiveAll(socket);
    if (!reply) return systemFailure("The daemon gave no answer");
    if (reply->empty()) return Failure{ExitCode::failed, "The daemon gave no answer.", ""};
    return std::move(*reply);
}

// The reply as the record that was asked for, or as the error that came in its place.
template <class Record>
Outcome<Record> ask(MessageType type) {
    const auto reply = exchange(type);
    if (const auto* failure = std::get_if<Failure>(&reply)) return *failure;
    const auto& document = std::get<std::string>(reply);
    auto record = Record::decode(document);
    if (auto* decoded = std::get_if<Record>(&record)) return std::move(*decoded);
    const auto response = ExtensionResponse::decode(document);
    if (const auto* decoded = std::get_if<ExtensionResponse>(&response))
        if (const auto* error = std::get_if<ExtensionResponse::Error>(&decoded->alternative))
            return Failure{ExitCode::failed, "The daemon refused: " + error->message, ""};
    return Failure{
        ExitCode::failed,
        "The daemon's answer is not understood: " + std::get<JSONFailure>(record).description, ""};
}

// A file of somebody else's that this user may not write to: a new one is moved over it, as the
// folder belongs to all who may post.
bool moveNewFileTo(const std::string& path) {
    const std::string made = path + "." + platform::UUID::random().uuidString();
    const FileDescriptor file(
        open(made.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0660));
    if (!file) return false;
    fchmod(file.get(), 0660);
    if (rename(made.c_str(), path.c_str()) == 0) return true;
    unlink(made.c_str());
    return false;
}

bool touch(const std::string& path) {
    const FileDescriptor file(open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    return file && futimens(file.get(), nullptr) == 0;
}

}  // namespace

Outcome<> postRulesChanged() {
    const std::string path =
        std::string(places::notificationsFolder) + "/" + rulesChangedNotification;
    if (touch(path) || moveNewFileTo(path)) return Nothing{};
    if (errno == ENOENT) return notRunning();
    if (errno == EACCES || errno == EPERM) return notPermitted();
    return systemFailure("The daemon cannot be notified");
}

// A connection of the wrong kind: a socket that somebody holds refuses it for that, one that was left
// behind for having nobody.
bool isDaemonListening() {
    const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const bool isConnected = connectTo(places::messageSocket, socket.get()) == 0;
    return isConnected || (errno != ENOENT && errno != ECONNREFUSED);
}

Outcome<vantry::ExtensionStatus> askForStatus() {
    return ask<vantry::ExtensionStatus>(MessageType::getStatus);
}

Outcome<vantry::ActiveAppsResponse> askForActiveApps() {
    return ask<vantry::ActiveAppsResponse>(MessageType::getActiveApps);
}

Outcome<> askToClearActivityLog() {
    const auto response = ask<ExtensionResponse>(MessageType::clearActivityLog);
    if (const auto* failure = failureOf(response)) return *failure;
    const auto& alternative = std::get<ExtensionResponse>(response).alternative;
    if (const auto* error = std::get_if<ExtensionResponse::Error>(&alternative))
        return Failure{ExitCode::failed, "The daemon refused: " + error->message, ""};
    return Nothing{};
}

}  // namespace vantryctl
