#include "Host/vantry-settings/TunnelState.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <utility>

#include "Platform/Linux/FileDescriptor.h"

namespace vantrysettings {

using platform::FileDescriptor;
using platform::InterfaceAddress;
using platform::NetworkInterface;

namespace {

// How long a tunnel that no general route leads to may take to get one, by what it was the last time.
std::chrono::seconds timeForRoutes(std::optional<TunnelKind> before) {
    if (!before) return std::chrono::seconds{5};
    return std::chrono::seconds{*before == TunnelKind::full ? 10 : 1};
}

constexpr std::size_t mostRemembered = 256;

// Longer than a VPN is away that connects again.
constexpr std::chrono::minutes longestAbsence{1};

// Addresses of no machine on the way, two for each family: VPNs that replace the default route by its
// halves have both. (The ranges for benchmarks, RFC 2544 and RFC 5180, and the first of a half.)
constexpr std::array probesIPv4{"198.18.0.1", "128.0.0.1"};
constexpr std::array probesIPv6{"2001:2::1", "8000::1"};
constexpr std::uint16_t anyPort = 9;

bool isInUse(const NetworkInterface& interface) {
    return interface.isUp && std::ranges::any_of(interface.addresses, [](const auto& address) {
               return !address.isLinkLocal;
           });
}

bool isOwnedBy(const NetworkInterface& interface, int family, const void* bytes,
               std::size_t length) {
    return std::ranges::any_of(interface.addresses, [&](const InterfaceAddress& address) {
        return address.family == family && std::memcmp(address.bytes.data(), bytes, length) == 0;
    });
}

// A connected datagram socket has the address that the kernel would send from, and sends nothing.
template <class Address>
std::optional<Address> sourceTowards(const Address& remote, int family) {
    const FileDescriptor socket(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&remote), sizeof remote) != 0)
        return std::nullopt;
    Address source{};
    socklen_t length = sizeof source;
    if (getsockname(socket.get(), reinterpret_cast<sockaddr*>(&source), &length) != 0)
        return std::nullopt;
    return source;
}

bool leadsByIPv4(const NetworkInterface& interface, const char* probe) {
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(anyPort);
    inet_pton(AF_INET, probe, &remote.sin_addr);
    const auto source = sourceTowards(remote, AF_INET);
    return source && isOwnedBy(interface, AF_INET, &source->sin_addr, sizeof source->sin_addr);
}

bool leadsByIPv6(const NetworkInterface& interface, const char* probe) {
    sockaddr_in6 remote{};
    remote.sin6_family = AF_INET6;
    remote.sin6_port = htons(anyPort);
    inet_pton(AF_INET6, probe, &remote.sin6_addr);
    const auto source = sourceTowards(remote, AF_INET6);
    return source && isOwnedBy(interface, AF_INET6, &source->sin6_addr, sizeof source->sin6_addr);
}

}  // namespace

bool routesLeadTo(const NetworkInterface& interface) {
    return std::ranges::any_of(probesIPv4,
                               [&](const char* probe) { return leadsByIPv4(interface, probe); }) ||
           std::ranges::any_of(probesIPv6,
                               [&](const char* probe) { return leadsByIPv6(interface, probe); });
}

TunnelState::TunnelState(LeadsTo question, const TunnelMemory& memory)
    : leadsTo(std::move(question)) {
    for (const auto& [name, kind] : memory.before) tunnels[name].before = kind;
    for (const auto& [name, kind] : memory.sinceBoot) tunnels[name].present = kind;
}

TunnelKinds TunnelState::kinds() const {
    TunnelKinds found;
    for (const auto& [name, tunnel] : tunnels)
        if (const auto kind = tunnel.present ? tunnel.present : tunnel.before) found[name] = *kind;
    return found;
}

void TunnelState::Tunnel::beginAgain() {
    if (present) before = std::exchange(present, std::nullopt);
}

TunnelView TunnelState::look(const platform::NetworkState& state,
                             const std::vector<std::string>& names, Clock::time_point now) {
    TunnelView view;
    nextLook.reset();
    if (tunnels.size() > mostRemembered)
        std::erase_if(tunnels, [](const auto& each) { return each.second.goneSince.has_value(); });
    for (const auto& interface : state.interfaces) {
        const bool isNamed = std::ranges::find(names, interface.name) != names.end();
        if ((names.empty() ? interface.isTunnel : isNamed) && carries(interface, now))
            view.carrying.push_back(interface.name);
    }
    if (names.empty()) setSplitAside(view);
    for (const auto& name : names)
        if (state.named(name) == nullptr) view.absent.push_back(name);
    for (auto& [name, tunnel] : tunnels) {
        if (state.named(name) != nullptr) continue;
        tunnel.inUseSince.reset();
        if (!tunnel.goneSince) tunnel.goneSince = now;
        if (tunnel.present == TunnelKind::split) tunnel.beginAgain();
    }
    return view;
}

void TunnelState::setSplitAside(TunnelView& view) {
    const auto known = kinds();
    const auto isFull = [](const auto& each) { return each.second == TunnelKind::full; };
    if (std::ranges::none_of(known, isFull)) return;
    const auto isSplit = [&](const auto& name) { return known.at(name) == TunnelKind::split; };
    std::ranges::copy_if(view.carrying, std::back_inserter(view.split), isSplit);
    std::erase_if(view.carrying, isSplit);
}

bool TunnelState::carries(const NetworkInterface& interface, Clock::time_point now) {
    auto& tunnel = tunnels[interface.name];
    if (tunnel.goneSince && now - *tunnel.goneSince >= longestAbsence) tunnel.beginAgain();
    tunnel.goneSince.reset();
    if (!isInUse(interface)) {
        tunnel.inUseSince.reset();
        if (tunnel.present == TunnelKind::split) tunnel.beginAgain();
        return false;
    }
    if (!tunnel.inUseSince) tunnel.inUseSince = now;
    const bool isLed = leadsTo(interface);
    if (isLed) tunnel.present = TunnelKind::full;
    if (tunnel.present) return isLed || *tunnel.present == TunnelKind::split;
    const auto settled = *tunnel.inUseSince + timeForRoutes(tunnel.before);
    if (now >= settled) tunnel.present = TunnelKind::split;
    if (tunnel.present) return true;
    nextLook = nextLook ? std::min(*nextLook, settled) : settled;
    return false;
}

}  // namespace vantrysettings
