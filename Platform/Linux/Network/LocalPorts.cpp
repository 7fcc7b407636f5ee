#include "Platform/Linux/Network/LocalPorts.h"

#include <algorithm>
#include <fstream>

namespace platform {

std::vector<std::uint16_t> choosableLocalPorts(std::istream& range, std::istream& reserved) {
    std::vector<std::uint16_t> ports;
    unsigned lowest = 0;
    unsigned highest = 0;
    if (!(range >> lowest >> highest) || highest > 65535) return ports;
    for (unsigned port = lowest + 1; port <= highest; port += 2)
        ports.push_back(static_cast<std::uint16_t>(port));

    // Single ports and ranges: "8080,9148-9150".
    for (unsigned first = 0; reserved >> first;) {
        unsigned last = first;
        if (reserved.peek() == '-') reserved.ignore() >> last;
        if (reserved.peek() == ',') reserved.ignore();
        std::erase_if(ports, [&](std::uint16_t port) { return first <= port && port <= last; });
    }
    return ports;
}

LocalPorts& LocalPorts::ofThisThread() {
    thread_local LocalPorts ports;
    return ports;
}

std::uint16_t LocalPorts::next() {
    const auto now = std::chrono::steady_clock::now();
    if (now >= nextLook) {
        look();
        nextLook = now + std::chrono::seconds(1);
    }
    if (ports.empty()) return 0;
    position = (position + 1 + random() % 8) % ports.size();
    return ports[position];
}

void LocalPorts::look() {
    std::ifstream range("/proc/sys/net/ipv4/ip_local_port_range");
    std::ifstream reserved("/proc/sys/net/ipv4/ip_local_reserved_ports");
    ports = choosableLocalPorts(range, reserved);
}

}  // namespace platform
