#include "Tests/Platform/Linux/Interception/InterceptionLab.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <stdexcept>
#include <vector>

namespace platform::interception {

namespace {

void check(bool holds, const char* what) {
    if (!holds) throw std::runtime_error(what);
}

// The account keeps its number, so that files and processes look as they did.
void enterUserNamespace() {
    const std::string user = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    check(unshare(CLONE_NEWUSER) == 0, "no user namespace");
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
}

sockaddr_storage socketAddress(const char* address, std::uint16_t port, socklen_t& length) {
    sockaddr_storage storage{};
    if (auto* const four = reinterpret_cast<sockaddr_in*>(&storage);
        inet_pton(AF_INET, address, &four->sin_addr) == 1) {
        four->sin_family = AF_INET;
        four->sin_port = htons(port);
        length = sizeof *four;
        return storage;
    }
    auto* const six = reinterpret_cast<sockaddr_in6*>(&storage);
    check(inet_pton(AF_INET6, address, &six->sin6_addr) == 1, "no address");
    six->sin6_family = AF_INET6;
    six->sin6_port = htons(port);
    length = sizeof *six;
    return storage;
}

int listenForBothFamilies(int type, std::uint16_t port) {
    const int descriptor = socket(AF_INET6, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int off = 0;
    setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    socklen_t length = 0;
    const auto any = socketAddress("::", port, length);
    check(bind(descriptor, reinterpret_cast<const sockaddr*>(&any), length) == 0, "no bind");
    if (type == SOCK_STREAM) check(listen(descriptor, 4096) == 0, "no listen");
    return descriptor;
}

}  // namespace

InterceptionLab::InterceptionLab() {
    if (geteuid() != 0) enterUserNamespace();
    check(unshare(CLONE_NEWNET) == 0, "no network namespace");
    server = std::thread([this] { serve(); });
    check(eventually([this] { return serverThreadId != 0; }), "no server thread");
    run("ip link set lo up");
    run("ip link add eth0 type veth peer name peer0 netns " + std::to_string(serverThreadId));
    run("ip addr add 10.77.0.1/24 dev eth0; ip addr add fd77::1/64 dev eth0 nodad; "
        "ip link set eth0 up; ip route add default via 10.77.0.2");
    isLinked = true;
    check(eventually([this] { return isServing.load(); }), "no server");
}

InterceptionLab::~InterceptionLab() {
    isStopping = true;
    server.join();
}

bool InterceptionLab::enterThatOf(pid_t process) {
    const std::string folder = "/proc/" + std::to_string(process) + "/ns/";
    const auto enter = [&](const char* kind, int type) {
        const int descriptor = open((folder + kind).c_str(), O_RDONLY | O_CLOEXEC);
        const bool isIn = setns(descriptor, type) == 0;
        close(descriptor);
        return isIn;
    };
    return (geteuid() == 0 || enter("user", CLONE_NEWUSER)) && enter("net", CLONE_NEWNET);
}

std::string InterceptionLab::run(const std::string& command) {
    std::FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
    check(pipe != nullptr, "no shell");
    std::string output;
    std::array<char, 4096> buffer;
    while (const std::size_t count = std::fread(buffer.data(), 1, buffer.size(), pipe))
        output.append(buffer.data(), count);
    pclose(pipe);
    return output;
}

void InterceptionLab::serve() {
    check(unshare(CLONE_NEWNET) == 0, "no network namespace for the server");
    serverThreadId = gettid();
    check(eventually([this] { return isLinked.load(); }), "no link");
    run("ip link set lo up; ip addr add 10.88.0.1/32 dev lo; "
        "ip addr add 10.77.0.2/24 dev peer0; "
        "ip addr add fd77::2/64 dev peer0 nodad; ip link set peer0 up");
    serveUntilStopped();
}

void InterceptionLab::serveUntilStopped() {
    const int datagrams = listenForBothFamilies(SOCK_DGRAM, echoPort);
    constexpr std::size_t listeners = 3;
    std::vector<pollfd> polled{{datagrams, POLLIN, 0},
                               {listenForBothFamilies(SOCK_STREAM, echoPort), POLLIN, 0},
                               {listenForBothFamilies(SOCK_STREAM, discardPort), POLLIN, 0}};
    std::set<int> discarded;
    isServing = true;
    while (!isStopping) {
        poll(polled.data(), polled.size(), 20);
        if (polled[0].revents) echoDatagram(datagrams);
        for (std::size_t index = polled.size(); index-- > listeners;) {
            if (!polled[index].revents || serveConnection(polled[index].fd, discarded)) continue;
            discarded.erase(polled[index].fd);
            close(polled[index].fd);
            polled.erase(polled.begin() + static_cast<std::ptrdiff_t>(index));
        }
        for (std::size_t index = 1; index < listeners; ++index) {
            if (!polled[index].revents) continue;
            for (;;) {
                const int accepted = accept4(polled[index].fd, nullptr, nullptr, SOCK_CLOEXEC);
                if (accepted < 0) break;
                if (index == 2) discarded.insert(accepted);
                polled.push_back({accepted, POLLIN, 0});
            }
        }
    }
    for (const pollfd& open : polled) close(open.fd);
}

void InterceptionLab::echoDatagram(int descriptor) {
    sockaddr_storage from{};
    socklen_t length = sizeof from;
    const auto count = recvfrom(descriptor, buffer.data(), buffer.size(), 0,
                                reinterpret_cast<sockaddr*>(&from), &length);
    if (count < 0) return;
    serverBytes += static_cast<std::size_t>(count);
    sendto(descriptor, buffer.data(), static_cast<std::size_t>(count), 0,
           reinterpret_cast<const sockaddr*>(&from), length);
}

// False when the connection has ended.
bool InterceptionLab::serveConnection(int descriptor, const std::set<int>& discarded) {
    if (discarded.count(descriptor) != 0)
        return recv(descriptor, buffer.data(), buffer.size(), MSG_TRUNC) > 0;
    const auto count = recv(descriptor, buffer.data(), buffer.size(), 0);
    if (count <= 0) return false;
    serverBytes += static_cast<std::size_t>(count);
    ::send(descriptor, buffer.data(), static_cast<std::size_t>(count), MSG_NOSIGNAL);
    return true;
}

ClientSocket::ClientSocket(int family, int type)
    : descriptor_(socket(family, type | SOCK_CLOEXEC, 0)) {
    const timeval patience{5, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
}

ClientSocket::~ClientSocket() {
    if (descriptor_ >= 0) close(descriptor_);
}

int ClientSocket::connectTo(const char* address, std::uint16_t port) {
    socklen_t length = 0;
    const auto remote = socketAddress(address, port, length);
    const bool done = connect(descriptor_, reinterpret_cast<const sockaddr*>(&remote), length) == 0;
    return done ? 0 : errno;
}

int ClientSocket::send(std::size_t bytes) {
    const std::vector<char> content(bytes, 'x');
    for (std::size_t sent = 0; sent < bytes;) {
        const auto count = ::send(descriptor_, content.data() + sent, bytes - sent, MSG_NOSIGNAL);
        if (count < 0) return errno;
        sent += static_cast<std::size_t>(count);
    }
    return 0;
}

int ClientSocket::sendTo(const char* address, std::uint16_t port, std::size_t bytes) {
    const std::vector<char> content(bytes, 'x');
    socklen_t length = 0;
    const auto remote = socketAddress(address, port, length);
    const auto count = sendto(descriptor_, content.data(), bytes, 0,
                              reinterpret_cast<const sockaddr*>(&remote), length);
    return count < 0 ? errno : 0;
}

int ClientSocket::receive(std::size_t bytes) {
    std::vector<char> buffer(bytes);
    for (std::size_t got = 0; got < bytes;) {
        const auto count = recv(descriptor_, buffer.data(), bytes - got, 0);
        if (count < 0) return errno;
        if (count == 0) return ESHUTDOWN;
        got += static_cast<std::size_t>(count);
    }
    return 0;
}

int ClientSocket::exchange(std::size_t bytes) {
    const int error = send(bytes);
    return error != 0 ? error : receive(bytes);
}

bool eventually(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        usleep(1000);
    }
    return true;
}

}  // namespace platform::interception
