// The addresses of the machine's network interfaces, in the shape of the C library's calls. They
// differ from those in two ways: tunnels are shown under the names "utunN" or "ipsecN" whatever
// they are really called, and in the simulated platform the list is a scripted one. Any thread.
#pragma once

#include <ifaddrs.h>
#include <netdb.h>
#include <sys/socket.h>

namespace platform {

// Makes the linked list of interface addresses. Returns 0, or -1 on failure; the list may be empty.
// An entry's ifa_addr may be null. The list is given back with `platform::freeifaddrs`.
int getifaddrs(struct ::ifaddrs** list);
void freeifaddrs(struct ::ifaddrs* list);

// The length of a socket address by its family; 0 for a family without one here.
socklen_t socketAddressLength(const sockaddr& address);

// Turns a socket address into text. With NI_NUMERICHOST the text is the numeric address and nothing
// is looked up. Returns 0 on success.
int getnameinfo(const sockaddr* address, socklen_t length, char* host, socklen_t hostLength,
                char* service, socklen_t serviceLength, int flags);

}  // namespace platform
