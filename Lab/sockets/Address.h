#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>

namespace lab {

// An IPv4 or IPv6 address with its port, as a value. Both programs of the lab use it to turn what
// a person writes into what the socket calls want, and back. IPv4 addresses that arrive in their
// IPv6-mapped form are shown as plain IPv4.
struct Address {
    sockaddr_storage storage{};
    socklen_t length = 0;

    static std::optional<Address> parse(const std::string& host, uint16_t port);
    static Address of(const sockaddr_storage& storage, socklen_t length);

    // This address in its IPv6-mapped form; an IPv6 address stays as it is.
    Address mapped() const;

    int family() const { return storage.ss_family; }
    const sockaddr* pointer() const { return reinterpret_cast<const sockaddr*>(&storage); }
    std::string host() const;
    uint16_t port() const;
};

}  // namespace lab
