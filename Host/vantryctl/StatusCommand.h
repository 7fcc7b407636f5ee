// Shows the state of the daemon, of the settings and of the VPN, what is wrong before all else.
#pragma once

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

ExitCode showStatus(bool asJSON, const Console& console);

}  // namespace vantryctl
