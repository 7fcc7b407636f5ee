// Says for each thing that the daemon needs whether this machine has it, and what to do if not.
#pragma once

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

// Fails if something is missing without which the daemon cannot work, and otherwise if this user may not
// look at everything: what was not looked at is not good.
ExitCode checkMachine(bool asJSON, const Console& console);

// The same, but prints only what is not good, and in a line that all the rest is.
ExitCode checkMachineBriefly(const Console& console);

}  // namespace vantryctl
