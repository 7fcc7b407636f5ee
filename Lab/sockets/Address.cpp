#include "Lab/sockets/Address.h"

#include <arpa/inet.h>

#include <cstring>

namespace lab {
namespace {

sockaddr_in& asIPv4(sockaddr_storage& storage) { return reinterpret_cast<sockaddr_in&>(storage); }

const sockaddr_in& asIPv4(const sockaddr_storage& storage) {
    return reinterpret_cast<const sockaddr_in&>(storage);
}

sockaddr_in6& asIPv6(sockaddr_storage& storage) { return reinterpret_cast<sockaddr_in6&>(storage); }

const sockaddr_in6& asIPv6(const sockaddr_storage& storage) {
    return reinterpret_cast<const sockaddr_in6&>(storage);
}

}  // namespace

std::optional<Address> Address::parse(const std::string& host, uint16_t port) {
    Address address;
    auto& ipv4 = asIPv4(address.storage);
    if (inet_pton(AF_INET, host.c_str(), &ipv4.sin_addr) == 1) {
        ipv4.sin_family = AF_INET;
        ipv4.sin_port = htons(port);
        address.length = sizeof(sockaddr_in);
        return address;
    }
    auto& ipv6 = asIPv6(address.storage);
    if (inet_pton(AF_INET6, host.c_str(), &ipv6.sin6_addr) == 1) {
        ipv6.sin6_family = AF_INET6;
        ipv6.sin6_port = htons(port);
        address.length = sizeof(sockaddr_in6);
        return address;
    }
    return std::nullopt;
}

Address Address::of(const sockaddr_storage& storage, socklen_t length) {
    Address address;
    address.storage = storage;
    address.length = length;
    return address;
}

Address Address::mapped() const {
    if (family() != AF_INET) return *this;
    Address result;
    auto& ipv6 = asIPv6(result.storage);
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = asIPv4(storage).sin_port;
    ipv6.sin6_addr.s6_addr[10] = ipv6.sin6_addr.s6_addr[11] = 0xff;
    std::memcpy(&ipv6.sin6_addr.s6_addr[12], &asIPv4(storage).sin_addr, 4);
    result.length = sizeof(sockaddr_in6);
    return result;
}

std::string Address::host() const {
    char text[INET6_ADDRSTRLEN] = "";
    if (family() == AF_INET) {
        inet_ntop(AF_INET, &asIPv4(storage).sin_addr, text, sizeof text);
    } else if (IN6_IS_ADDR_V4MAPPED(&asIPv6(storage).sin6_addr)) {
        inet_ntop(AF_INET, &asIPv6(storage).sin6_addr.s6_addr[12], text, sizeof text);
    } else {
        inet_ntop(AF_INET6, &asIPv6(storage).sin6_addr, text, sizeof text);
    }
    return text;
}

uint16_t Address::port() const {
    return ntohs(family() == AF_INET ? asIPv4(storage).sin_port : asIPv6(storage).sin6_port);
}

}  // namespace lab
