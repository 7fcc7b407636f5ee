#include "Host/vantryctl/Destination.h"

#include <fmt/format.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <optional>

#include "Platform/Common/Text.h"
#include "Platform/Linux/FileDescriptor.h"

namespace vantryctl {

namespace {

constexpr std::uint16_t usualPort = 443;
// Of a network that is for examples only: the default route leads there.
constexpr const char* elsewhere = "198.51.100.1";

struct DropList {
    void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
    void operator()(ifaddrs* list) const { ::freeifaddrs(list); }
};

std::unique_ptr<addrinfo, DropList> addressesOf(const std::string& host, std::uint16_t port,
                                                int flags) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = flags | AI_NUMERICSERV;
    addrinfo* list = nullptr;
    const int failure = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
    return std::unique_ptr<addrinfo, DropList>(failure == 0 ? list : nullptr);
}

std::string numericHost(const addrinfo& address) {
    char text[NI_MAXHOST] = "";
    ::getnameinfo(address.ai_addr, address.ai_addrlen, text, sizeof text, nullptr, 0,
                  NI_NUMERICHOST);
    return text;
}

// The bytes that tell one address of a family from another.
std::string_view addressBytes(const sockaddr& address) {
    if (address.sa_family == AF_INET)
        return {
            reinterpret_cast<const char*>(&reinterpret_cast<const sockaddr_in&>(address).sin_addr),
            sizeof(in_addr)};
    if (address.sa_family == AF_INET6)
        return {reinterpret_cast<const char*>(
                    &reinterpret_cast<const sockaddr_in6&>(address).sin6_addr),
                sizeof(in6_addr)};
    return {};
}

std::string interfaceWith(const sockaddr& address) {
    ifaddrs* made = nullptr;
    if (::getifaddrs(&made) != 0) return "";
    const std::unique_ptr<ifaddrs, DropList> list(made);
    for (const auto* each = list.get(); each != nullptr; each = each->ifa_next)
        if (each->ifa_addr != nullptr && each->ifa_addr->sa_family == address.sa_family &&
            addressBytes(*each->ifa_addr) == addressBytes(address))
            return each->ifa_name;
    return "";
}

struct HostAndPort {
    std::string_view host, port;
};

// No value where the brackets don't match.
std::optional<HostAndPort> split(std::string_view text) {
    if (text.starts_with('[')) {
        const auto end = text.find(']');
        if (end == std::string_view::npos) return std::nullopt;
        const auto rest = text.substr(end + 1);
        if (!rest.empty() && rest.front() != ':') return std::nullopt;
        return HostAndPort{text.substr(1, end - 1), rest.empty() ? rest : rest.substr(1)};
    }
    const auto colon = text.find(':');
    // More than one: an address of IPv6.
    if (colon == std::string_view::npos || text.find(':', colon + 1) != std::string_view::npos)
        return HostAndPort{text, {}};
    return HostAndPort{text.substr(0, colon), text.substr(colon + 1)};
}

}  // namespace

Outcome<Destination> destinationIn(std::string_view text) {
    const Failure noDestination{ExitCode::usage, fmt::format("{} is no destination.", text),
                                "Give HOST or HOST:PORT; an IPv6 address with a port in brackets."};
    const auto parts = split(text);
    if (!parts || parts->host.empty()) return noDestination;
    const auto port =
        parts->port.empty() ? std::optional(usualPort) : platform::decimalUInt16(parts->port);
    if (!port) return noDestination;
    const auto addresses = addressesOf(std::string(parts->host), *port, 0);
    if (!addresses)
        return Failure{ExitCode::failed, fmt::format("{} has no address.", parts->host), ""};
    return Destination{numericHost(*addresses), *port};
}

std::string textOf(const Destination& destination) {
    const bool isIPv6 = destination.host.find(':') != std::string::npos;
    return fmt::format(fmt::runtime(isIPv6 ? "[{}]:{}" : "{}:{}"), destination.host,
                       destination.port);
}

std::string interfaceTowards(const Destination& destination) {
    const auto host = destination.host.empty() ? std::string(elsewhere) : destination.host;
    const auto address = addressesOf(host, usualPort, AI_NUMERICHOST);
    if (!address) return "";
    const platform::FileDescriptor socket(
        ::socket(address->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_storage local{};
    socklen_t length = sizeof local;
    auto* const own = reinterpret_cast<sockaddr*>(&local);
    if (::connect(socket.get(), address->ai_addr, address->ai_addrlen) != 0 ||
        ::getsockname(socket.get(), own, &length) != 0)
        return "";
    return interfaceWith(*own);
}

}  // namespace vantryctl
