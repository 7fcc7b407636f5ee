// Which tunnels have led the machine's routes, for the service's next start: one that keeps its device and has
// lost its routes would else count as a VPN for some networks only. Kept until the machine's next start.
#pragma once

#include <set>
#include <string>

#include "Host/settings/Outcome.h"

namespace vantrysettings {

class TunnelMemory {
public:
    // Interfaces' names; none where nothing was kept or it cannot be read.
    static std::set<std::string> read();
    static vantryhost::Outcome<> keep(const std::set<std::string>& names);
};

}  // namespace vantrysettings
