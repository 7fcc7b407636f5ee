// What stands between the core and the two ends of a direct connection while it is recorded: notes what is
// asked and what comes back, and hands both on. One whose making was not recorded has none. Any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Platform/Linux/CarriedEnds.h"

namespace platform::recording {

// The flow that the core is shown in place of `flow`, for a connection of that number.
std::shared_ptr<NEAppProxyTCPFlow> followed(std::shared_ptr<NEAppProxyTCPFlow> flow,
                                            std::uint64_t number);

// `connection` itself, or what notes on its way there, if the calling thread's call is recorded.
std::shared_ptr<NWConnection::Implementation> followed(
    std::shared_ptr<NWConnection::Implementation> connection, const std::string& host,
    std::uint16_t port, const NWParameters& parameters);

}  // namespace platform::recording
