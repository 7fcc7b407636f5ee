// Looks up host names on threads of its own, a few at a time, as a look-up may wait for seconds and
// nothing else may wait with it. The threads come with the first name. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Platform/Common/Completion.h"
#include "Platform/Linux/Network/SocketAddress.h"

namespace platform {

struct ResolvedName {
    // In the order in which they should be tried: the system's order of preference, the families
    // taking turns.
    std::vector<SocketAddress> addresses;
    // When there are none, why: a code of getaddrinfo.
    int error = 0;
};

// Calls back on one of the resolver's threads, never inside the call. With too many names waiting
// the answer is EAI_AGAIN.
void resolveName(std::string name, std::uint16_t port, Completion<ResolvedName> completion);

// `addresses` with the families taking turns, beginning with the first one's; each family keeps its
// order.
std::vector<SocketAddress> alternateFamilies(const std::vector<SocketAddress>& addresses);

}  // namespace platform
