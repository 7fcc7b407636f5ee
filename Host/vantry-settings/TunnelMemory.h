// What the machine's tunnels were, for the service's next start, and for the next boot: whether one led all
// routes or is for some networks only does not show while it comes up, nor of one that has lost its routes.
#pragma once

#include <map>
#include <string>

#include "Host/settings/Outcome.h"

namespace vantrysettings {

enum class TunnelKind { full, split };
using TunnelKinds = std::map<std::string, TunnelKind>;  // by the interface's name

struct TunnelMemory {
    TunnelKinds sinceBoot;
    TunnelKinds before;

    // Empty where nothing was kept or it cannot be read.
    static TunnelMemory read();
    static vantryhost::Outcome<> keep(const TunnelKinds& kinds);
};

}  // namespace vantrysettings
