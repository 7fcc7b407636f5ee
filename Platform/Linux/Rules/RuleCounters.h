// What the kernel has counted in a table of packet rules. Each question asks the kernel; any thread, with a socket of
// its own.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/Result.h"

namespace platform::interception {

// Shows each rule of the table; none if there is no such table. Fails with EINTR where rules change meanwhile.
Result<> visitRules(const char* table, netlink::Socket& socket,
                    const std::function<void(const netlink::Message&)>& visit);

// How many packets the table's counters have counted together; null if there is none.
std::optional<std::uint64_t> packetsCounted(const char* table, netlink::Socket& socket);

}  // namespace platform::interception
