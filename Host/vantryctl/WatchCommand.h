// The service that keeps the daemon informed: it follows the VPN's tunnel and stores whether it is up,
// and it makes the rules file anew from the preferences when that is missing, after a boot above all.
#pragma once

#include <string>
#include <vector>

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

struct WatchOptions {
    std::vector<std::string> interfaces;  // the VPN's; every tunnel if empty
    bool isOnce = false;
};

// Goes on until the process ends, except with `isOnce`. A change that cannot be stored is said and
// tried again.
ExitCode watchTunnel(const WatchOptions& options, const Console& console);

}  // namespace vantryctl
