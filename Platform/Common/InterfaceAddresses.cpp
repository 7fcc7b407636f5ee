#include "Platform/InterfaceAddresses.h"

#include <netinet/in.h>

namespace platform {

socklen_t socketAddressLength(const sockaddr& address) {
    switch (address.sa_family) {
        case AF_INET:
            return sizeof(sockaddr_in);
        case AF_INET6:
            return sizeof(sockaddr_in6);
        default:
            return 0;
    }
}

}  // namespace platform
