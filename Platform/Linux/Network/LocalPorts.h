// The local ports of our own connections that are bound to an interface. Where the kernel chooses a
// port for a connecting application it does not compare with sockets that are bound to a device
// (Linux 6.18, `inet_bound_dev_eq`), so it may hand out the port that such a connection to the same
// place has. Both have the same addresses and ports then, and both fail. Ports that were bound
// explicitly it leaves alone, so our connections bind theirs, shared among themselves by
// SO_REUSEADDR: only the same port to the same place is taken. An object belongs to one thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <random>
#include <vector>

namespace platform {

// The ports to choose from, given the texts of the kernel's `ip_local_port_range` and
// `ip_local_reserved_ports`. Every other port of the range, beginning with its second: the kernel
// prefers these for `bind` and the rest for `connect`.
std::vector<std::uint16_t> choosableLocalPorts(std::istream& range, std::istream& reserved);

class LocalPorts {
public:
    static LocalPorts& ofThisThread();

    // A port to try; 0 if there is none to choose. Ports come back after some thousand others, in
    // an order that cannot be foreseen (RFC 6056, algorithm 5).
    std::uint16_t next();

private:
    void look();

    std::vector<std::uint16_t> ports;
    std::chrono::steady_clock::time_point nextLook;
    std::minstd_rand random{std::random_device{}()};
    std::size_t position = random();
};

}  // namespace platform
