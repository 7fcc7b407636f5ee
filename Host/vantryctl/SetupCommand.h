// Leads through the first settings: looks at the machine, names the tunnel that it found, asks what is to go which
// way, has the services started, puts that in force, sees with `verify` that it holds, and says the way back. With
// all answers given as options it asks nothing.
#pragma once

#include <string>
#include <vector>

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

struct SetupOptions {
    std::string defaultRoute;             // "vpn" or "direct"; empty: to be asked
    std::vector<std::string> exceptions;  // the applications that go the other way
    std::string datagrams;  // "on" or "off": whether direct ones go directly; empty: as is
    std::string fallback;   // "allow" or "block"; empty: to be asked
    std::vector<std::string> tunnels;  // the interfaces that are the VPN; empty: every tunnel
};

ExitCode setUp(const SetupOptions& options, const Console& console);

}  // namespace vantryctl
