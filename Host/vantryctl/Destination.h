// Where a flow goes, as a person types it, and by which interface the system's own route leads there.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

struct Destination {
    std::string host;  // numeric, or empty: anywhere
    std::uint16_t port = 0;
};

// Reads "HOST", "HOST:PORT", "ADDRESS" or "[ADDRESS]:PORT", and looks a name up. Without a port, 443.
Outcome<Destination> destinationIn(std::string_view text);

std::string textOf(const Destination& destination);

// The interface by which this process's own packets would leave for it, or for the rest of the world;
// empty if there is no route. Sends nothing.
std::string interfaceTowards(const Destination& destination);

}  // namespace vantryctl
