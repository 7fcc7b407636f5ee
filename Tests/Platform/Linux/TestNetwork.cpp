#include "Tests/Platform/Linux/TestNetwork.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <thread>

#include "Tests/Platform/Linux/Namespaces.h"
#include "Tests/Platform/Linux/Sockets.h"

namespace platform {
namespace {

const std::string withIPv6 =
    "sysctl -qw net.ipv6.conf.all.disable_ipv6=0 net.ipv6.conf.default.disable_ipv6=0; ";

FileDescriptor makeNetworkNamespace() {
    FileDescriptor made;
    std::thread([&] {
        if (::unshare(CLONE_NEWNET) == 0)
            made = FileDescriptor(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    }).join();
    return made;
}

std::string addressesOf(const std::string& link, const std::string& ipv4, const std::string& ipv6) {
    return "ip address add " + ipv4 + "/24 dev " + link + "; ip address add " + ipv6 +
           "/64 nodad dev " + link + "; ip link set " + link + " up; ";
}

}  // namespace

std::unique_ptr<TestNetwork> TestNetwork::make() {
    if (!enterNamespaces(Namespace::network)) return nullptr;
    std::unique_ptr<TestNetwork> network(new TestNetwork);
    network->world = makeNetworkNamespace();
    if (!network->world) return nullptr;
    const std::string world =
        "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(network->world.get());
    runCommand(withIPv6 +
               "for link in eth0 vpn0; do "
               "ip link add $link type veth peer name $link netns " +
               world + "; done");
    runCommand("nsenter --net=" + world + " sh -c '" + withIPv6 +
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
    return network;
}

FileDescriptor TestNetwork::listenInWorld(const std::string& address, std::uint16_t port,
                                          int type) const {
    FileDescriptor listener;
    std::thread([&] {
        if (::setns(world.get(), CLONE_NEWNET) == 0) listener = listenOn(address, port, type);
    }).join();
    return listener;
}

}  // namespace platform
