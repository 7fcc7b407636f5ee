#include "Tests/Platform/Linux/TestNetwork.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <thread>

#include "Tests/Platform/Linux/Namespaces.h"

namespace platform {
namespace {

// The way to a descriptor of this process for commands that it runs.
std::string pathOf(const FileDescriptor& descriptor) {
    return "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(descriptor.get());
}

FileDescriptor makeNetworkNamespace() {
    FileDescriptor made;
    std::thread([&] {
        if (::unshare(CLONE_NEWNET) == 0)
            made = FileDescriptor(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    }).join();
    return made;
}

}  // namespace

std::unique_ptr<TestNetwork> TestNetwork::make() {
    if (!enterNamespaces(Namespace::network)) return nullptr;
    std::unique_ptr<TestNetwork> network(new TestNetwork);
    network->world = makeNetworkNamespace();
    if (!network->world) return nullptr;
    runCommand("sysctl -qw net.ipv6.conf.all.disable_ipv6=0 net.ipv6.conf.default.disable_ipv6=0");
    network->runInWorld(
        "sysctl -qw net.ipv6.conf.all.disable_ipv6=0 net.ipv6.conf.default.disable_ipv6=0");
    network->runInWorld(
        "ip link set lo up; ip address add 198.51.100.2/32 dev lo; "
        "ip address add fd51::2/128 dev lo");
    struct Link {
        std::string name, ipv4, ipv6;
    };
    for (const auto& [name, ipv4, ipv6] :
         {Link{"eth0", "192.0.2.", "fd02::"}, Link{"vpn0", "10.8.0.", "fd08::"}}) {
        runCommand("ip link add " + name + " type veth peer name " + name + " netns " +
                   pathOf(network->world));
        network->runInWorld("ip address add " + ipv4 + "1/24 dev " + name + "; ip address add " +
                            ipv6 + "1/64 nodad dev " + name + "; ip link set " + name + " up");
        runCommand("ip address add " + ipv4 + "2/24 dev " + name + "; ip address add " + ipv6 +
                   "2/64 nodad dev " + name + "; ip link set " + name + " up");
    }
    runCommand(
        "ip route add default via 10.8.0.1 dev vpn0 metric 50; "
        "ip route add default via 192.0.2.1 dev eth0 metric 100; "
        "ip -6 route add default via fd08::1 dev vpn0 metric 50; "
        "ip -6 route add default via fd02::1 dev eth0 metric 100");
    return network;
}

void TestNetwork::runInWorld(const std::string& command) const {
    runCommand("nsenter --net=" + pathOf(world) + " sh -c '" + command + "'");
}

FileDescriptor TestNetwork::listenInWorld(const std::string& address, std::uint16_t port) const {
    FileDescriptor listener;
    std::thread([&] {
        ASSERT_EQ(::setns(world.get(), CLONE_NEWNET), 0);
        addrinfo hints{};
        hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        ASSERT_EQ(::getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found), 0);
        listener = FileDescriptor(::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const int yes = 1;
        ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        EXPECT_EQ(::bind(listener.get(), found->ai_addr, found->ai_addrlen), 0);
        ::freeaddrinfo(found);
        EXPECT_EQ(::listen(listener.get(), 64), 0);
    }).join();
    return listener;
}

std::string peerAddressOf(const FileDescriptor& socket) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    ::getpeername(socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
    std::array<char, INET6_ADDRSTRLEN> text{};
    ::getnameinfo(reinterpret_cast<sockaddr*>(&address), length, text.data(), text.size(), nullptr,
                  0, NI_NUMERICHOST);
    return text.data();
}

}  // namespace platform
