// A small network of the test's own: this machine with a physical interface and a tunnel, and the
// world behind both. The default route leads into the tunnel.
//
//   this namespace                               the world
//     eth0  192.0.2.2/24   fd02::2/64  ----------  192.0.2.1   fd02::1
//     vpn0  10.8.0.2/24    fd08::2/64  ----------  10.8.0.1    fd08::1
//                                                  lo 198.51.100.2, fd51::2 (a server's addresses)
//
// Anything else that is sent into the world is silently dropped there.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>

#include "Tests/Platform/Linux/Namespaces.h"
#include "Tests/Platform/Linux/Sockets.h"

namespace platform {

class TestNetwork {
public:
    static constexpr const char* serverIPv4 = "198.51.100.2";
    static constexpr const char* serverIPv6 = "fd51::2";
    static constexpr const char* silentIPv4 = "198.51.100.77";

    // Null if the machine does not allow it. First thing in a test, as `enterNamespaces`.
    static std::unique_ptr<TestNetwork> make() {
        if (!enterNamespaces(Namespace::network)) return nullptr;
        std::unique_ptr<TestNetwork> network(new TestNetwork);
        std::thread([&made = network->world] {
            if (::unshare(CLONE_NEWNET) == 0)
                made = FileDescriptor(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
        }).join();
        if (!network->world) return nullptr;
        network->connectBoth();
        return network;
    }

    // A listener, or a datagram socket, of the world.
    FileDescriptor listenInWorld(const std::string& address, std::uint16_t port,
                                 int type = SOCK_STREAM) const {
        FileDescriptor listener;
        std::thread([&] {
            if (::setns(world.get(), CLONE_NEWNET) == 0) listener = listenOn(address, port, type);
        }).join();
        return listener;
    }

private:
    TestNetwork() = default;

    void connectBoth() const {
        const std::string place =
            "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(world.get());
        const std::string withIPv6 =
            "sysctl -qw net.ipv6.conf.all.disable_ipv6=0 net.ipv6.conf.default.disable_ipv6=0; ";
        runCommand(withIPv6 +
                   "for link in eth0 vpn0; do "
                   "ip link add $link type veth peer name $link netns " +
                   place + "; done");
        runCommand("nsenter --net=" + place + " sh -c '" + withIPv6 +
                   addressesOf("eth0", "192.0.2.1", "fd02::1") +
                   addressesOf("vpn0", "10.8.0.1", "fd08::1") +
                   "ip link set lo up; ip address add 198.51.100.2/32 dev lo; "
                   "ip address add fd51::2/128 nodad dev lo'");
        runCommand(addressesOf("eth0", "192.0.2.2", "fd02::2") +
                   addressesOf("vpn0", "10.8.0.2", "fd08::2") +
                   "ip route add default via 10.8.0.1 dev vpn0 metric 50; "
                   "ip route add default via 192.0.2.1 dev eth0 metric 100; "
                   "ip -6 route add default via fd08::1 dev vpn0 metric 50; "
                   "ip -6 route add default via fd02::1 dev eth0 metric 100");
    }
    static std::string addressesOf(const std::string& link, const std::string& ipv4,
                                   const std::string& ipv6) {
        return "ip address add " + ipv4 + "/24 dev " + link + "; ip address add " + ipv6 +
               "/64 nodad dev " + link + "; ip link set " + link + " up; ";
    }

    FileDescriptor world;
};

}  // namespace platform
