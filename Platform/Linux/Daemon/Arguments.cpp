#include "Platform/Linux/Daemon/Arguments.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "Platform/Common/Version.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/HostChannel/FixedPlaces.h"
#include "Platform/Linux/Logging/LogStore.h"
#include "Platform/Linux/Steering/Leftovers.h"

namespace platform {

namespace {

constexpr int usageStatus = 2;
constexpr const char* help =
    "usage: vantryd [--clean-up | --help | --version]\n"
    "\n"
    "Enforces for each application whether its traffic goes over the VPN, directly over\n"
    "the physical interface, or nowhere. Runs as root until SIGTERM; normally the service\n"
    "manager starts it: systemctl start vantryd. It takes no settings here: vantryctl\n"
    "changes the rules, and vantryd(8) says which files it reads.\n"
    "\n"
    "--clean-up takes away what a daemon that was killed has left: routing rules, packet\n"
    "rules and the direct connections that they carry. The service manager runs it.\n";

// The core's entry knows no arguments, so the kernel is asked for them.
std::vector<std::string> ownArguments() {
    std::vector<std::string> arguments;
    std::ifstream file("/proc/self/cmdline");
    for (std::string each; std::getline(file, each, '\0');) arguments.push_back(std::move(each));
    if (!arguments.empty()) arguments.erase(arguments.begin());
    return arguments;
}

[[noreturn]] void refuse(const std::string& argument) {
    std::cerr << "vantryd: unknown argument: " << argument << "\nTry vantryd --help.\n";
    std::exit(usageStatus);
}

// One that stands still has its socket still, and no room in its queue perhaps; one that was killed refuses.
bool isDaemonRunning() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, places::messageSocket, sizeof address.sun_path - 1);
    const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) return false;
    const int connected =
        ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return connected == 0 || errno == EAGAIN;
}

// The status to end with.
int cleanUp() {
    if (isDaemonRunning()) {
        std::cerr << "vantryd: the daemon is running; stop it first: systemctl stop vantryd\n";
        return EXIT_FAILURE;
    }
    const auto removed = steering::removeLeftovers();
    flushLog(std::chrono::seconds{1});
    if (removed) return EXIT_SUCCESS;
    std::cerr << "vantryd: what is left cannot be taken away: " << removed.error().text() << '\n';
    return EXIT_FAILURE;
}

// It would take the sockets and files of the first one, also from another network.
void refuseSecondDaemon() {
    if (!isDaemonRunning()) return;
    std::cerr << "vantryd: the daemon is running already. To start it again: systemctl restart "
                 "vantryd\n";
    std::exit(EXIT_FAILURE);
}

}  // namespace

void answerArguments() {
    const auto arguments = ownArguments();
    if (arguments.empty()) return refuseSecondDaemon();
    const std::string& first = arguments.front();
    const bool isKnown =
        first == "--help" || first == "-h" || first == "--version" || first == "--clean-up";
    if (!isKnown) refuse(first);
    if (arguments.size() > 1) refuse(arguments[1]);
    if (first == "--clean-up") std::exit(cleanUp());
    if (first == "--version")
        std::cout << "vantryd " << version() << '\n';
    else
        std::cout << help;
    std::exit(EXIT_SUCCESS);
}

}  // namespace platform
