#include "Host/settings/DaemonNotice.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "Host/settings/Places.h"
#include "Host/settings/UnixExchange.h"
#include "Platform/Common/UUID.h"
#include "Platform/Linux/FileDescriptor.h"

namespace vantryhost {

using platform::FileDescriptor;

namespace {

// A file of another user's that this one may not write to: a new one is moved over it, as the folder
// belongs to all who may post.
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

Failure daemonNotRunning() {
    return {ExitCode::daemonNotRunning, "The daemon is not running.",
            "Start it (systemctl start vantryd), or see why it ended (journalctl -u vantryd)."};
}

Failure daemonNotPermitted() {
    return {ExitCode::notPermitted,
            "Only root and the members of the group vantry may talk to the daemon.",
            "Use sudo, or join the group (usermod -aG vantry NAME) and log in again."};
}

Outcome<> postRulesChanged() {
    const std::string path =
        std::string(places::notificationsFolder) + "/" + rulesChangedNotification;
    if (touch(path) || moveNewFileTo(path)) return Nothing{};
    const int error = errno;
    if (error == ENOENT) return daemonNotRunning();
    if (error == EACCES || error == EPERM) return daemonNotPermitted();
    return Failure{ExitCode::failed,
                   std::string("The daemon cannot be notified: ") + std::strerror(error) + ".", ""};
}

// A connection of the wrong kind: a socket that a process holds refuses it for that, one that was left
// behind for having no listener.
bool isDaemonListening() {
    const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const bool isConnected = connectTo(places::messageSocket, socket.get()) == 0;
    return isConnected || (errno != ENOENT && errno != ECONNREFUSED);
}

}  // namespace vantryhost
