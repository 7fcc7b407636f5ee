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

#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <string>

#include "Platform/Linux/FileDescriptor.h"

namespace platform {

class TestNetwork {
public:
    static constexpr const char* serverIPv4 = "198.51.100.2";
    static constexpr const char* serverIPv6 = "fd51::2";
    static constexpr const char* silentIPv4 = "198.51.100.77";

    // Null if the machine does not allow it. First thing in a test, as `enterNamespaces`.
    static std::unique_ptr<TestNetwork> make();

    // A listener, or a datagram socket, of the world.
    FileDescriptor listenInWorld(const std::string& address, std::uint16_t port,
                                 int type = SOCK_STREAM) const;

private:
    TestNetwork() = default;
    FileDescriptor world;
};

}  // namespace platform
