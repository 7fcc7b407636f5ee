// The list of interface addresses, made from the network monitor's picture: no system call for each
// look, and tunnels under the names by which they are known.
#include "Platform/InterfaceAddresses.h"

#include <net/if.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "Platform/Linux/Network/NetworkMonitor.h"
#include "Platform/Linux/Network/SocketAddress.h"

namespace platform {
namespace {

// One allocation for a whole list. Its first entry is the base, so that the entry's address is all
// that is needed to give the list back.
struct AddressList : ifaddrs {
    std::vector<ifaddrs> others;
    std::vector<SocketAddress> addresses;
    std::vector<SocketAddress> masks;
    std::shared_ptr<const NetworkState> network;  // holds the names
};

SocketAddress socketAddress(int family, const std::array<std::uint8_t, 16>& bytes) {
    SocketAddress address;
    address.any.sa_family = static_cast<sa_family_t>(family);
    if (family == AF_INET) {
        std::memcpy(&address.ipv4.sin_addr, bytes.data(), sizeof address.ipv4.sin_addr);
        address.length = sizeof address.ipv4;
    } else {
        std::memcpy(&address.ipv6.sin6_addr, bytes.data(), sizeof address.ipv6.sin6_addr);
        address.length = sizeof address.ipv6;
    }
    return address;
}

std::array<std::uint8_t, 16> maskBytes(int prefixLength) {
    std::array<std::uint8_t, 16> bytes{};
    for (std::size_t i = 0; i < bytes.size() && prefixLength > 0; ++i, prefixLength -= 8)
        bytes[i] = static_cast<std::uint8_t>(prefixLength >= 8 ? 0xff : 0xff << (8 - prefixLength));
    return bytes;
}

ifaddrs makeEntry(const NetworkInterface& interface) {
    ifaddrs entry{};
    entry.ifa_name = const_cast<char*>(interface.shownName.c_str());  // the type is the C library's
    entry.ifa_flags = interface.flags;
    return entry;
}

}  // namespace

int getifaddrs(struct ::ifaddrs** list) {
    auto made = std::make_unique<AddressList>();
    made->network = NetworkMonitor::shared().state();
    std::vector<ifaddrs> entries;
    for (const auto& interface : made->network->interfaces) {
        // As the system's list does, one entry for the link itself.
        entries.push_back(makeEntry(interface));
        made->addresses.emplace_back();
        made->masks.emplace_back();
        for (const auto& address : interface.addresses) {
            entries.push_back(makeEntry(interface));
            made->addresses.push_back(socketAddress(address.family, address.bytes));
            if (address.family == AF_INET6 && address.isLinkLocal)
                made->addresses.back().ipv6.sin6_scope_id =
                    static_cast<std::uint32_t>(interface.index);
            made->masks.push_back(socketAddress(address.family, maskBytes(address.prefixLength)));
        }
    }
    *list = nullptr;
    if (entries.empty()) return 0;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (made->addresses[i].length == 0) continue;
        entries[i].ifa_addr = &made->addresses[i].any;
        entries[i].ifa_netmask = &made->masks[i].any;
    }
    static_cast<ifaddrs&>(*made) = entries.front();
    made->others.assign(entries.begin() + 1, entries.end());
    ifaddrs* previous = made.get();
    for (auto& entry : made->others) previous = previous->ifa_next = &entry;
    *list = made.release();
    return 0;
}

void freeifaddrs(struct ::ifaddrs* list) {
    const std::unique_ptr<AddressList> owned(static_cast<AddressList*>(list));
}

int getnameinfo(const sockaddr* address, socklen_t length, char* host, socklen_t hostLength,
                char* service, socklen_t serviceLength, int flags) {
    return ::getnameinfo(address, length, host, hostLength, service, serviceLength, flags);
}

}  // namespace platform
