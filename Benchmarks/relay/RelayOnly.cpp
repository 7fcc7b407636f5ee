// The relay alone, for benchmarks: it accepts the connections that a redirect rule brings to a local
// port, and relays each to where it was going, as the daemon does with a claimed flow, but without
// the queue, the rules and the verdicts. Usage: relay_only PORT INTERFACE
#include <arpa/inet.h>
#include <linux/netfilter_ipv4.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "Extension/proxy-session/ProxySession.h"
#include "Platform/Dispatch.h"
#include "Platform/Linux/Relay/ConnectionAcceptor.h"
#include "Platform/Linux/Relay/SocketFlow.h"
#include "Platform/NEAppProxyFlow.h"
#include "Platform/Network.h"

namespace {

using namespace platform;
using vantry::ProxySession;

void raiseDescriptorLimit() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

FileDescriptor listenOn(std::uint16_t port) {
    FileDescriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int yes = 1;
    ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    ::setsockopt(listener.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener.get(), 16384) != 0)
        return {};
    return listener;
}

NWHostEndpoint originalDestination(const FileDescriptor& socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::getsockopt(socket.get(), SOL_IP, SO_ORIGINAL_DST, &address, &length) != 0) return {};
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    return {text.data(), std::to_string(ntohs(address.sin_port))};
}

// The table of sessions, as the provider keeps it.
class Sessions {
public:
    explicit Sessions(NWInterface bound) : interface(std::move(bound)) {}

    void relay(FileDescriptor socket) {
        const auto destination = originalDestination(socket);
        const auto port = NWEndpoint::Port::fromString(destination.port);
        if (!port) return;
        const auto side = std::make_shared<SocketFlow>();
        const auto flow = std::make_shared<NEAppProxyTCPFlow>(NEFlowMetaData{}, destination, side);
        NWParameters parameters = NWParameters::tcp();
        parameters.requiredInterface = interface;
        const auto connection = std::make_shared<NWConnection>(
            NWEndpoint::Host(destination.hostname), *port, parameters);
        const auto key = reinterpret_cast<std::intptr_t>(flow.get());
        const auto session = std::make_shared<ProxySession>(
            flow, connection, "org.example.application", key, Logger("org.example", "Relay"));
        {
            const std::lock_guard guard(mutex);
            table[key] = session;
        }
        session->start([this, key] {
            const std::lock_guard guard(mutex);
            table.erase(key);
        });
        side->supplySocket(std::move(socket));
    }

private:
    const NWInterface interface;
    std::mutex mutex;
    std::unordered_map<std::intptr_t, std::shared_ptr<ProxySession>> table;
};

}  // namespace

int main(int argumentCount, char** arguments) {
    if (argumentCount != 3) {
        std::fprintf(stderr, "usage: relay_only PORT INTERFACE\n");
        return EXIT_FAILURE;
    }
    raiseDescriptorLimit();
    auto listener = listenOn(static_cast<std::uint16_t>(std::atoi(arguments[1])));
    if (!listener) {
        std::perror("relay_only");
        return EXIT_FAILURE;
    }
    Sessions sessions(NWInterface(arguments[2], NWInterface::InterfaceType::wiredEthernet));
    const ConnectionAcceptor acceptor(
        std::move(listener),
        [&](FileDescriptor socket, const sockaddr_storage&) { sessions.relay(std::move(socket)); });
    dispatch_main();
}
