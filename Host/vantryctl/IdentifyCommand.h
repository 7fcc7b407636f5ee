// Says under which identifier a process or a program is known, which is what rules are given for.
#pragma once

#include <string>

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

// `subject` is a process id or the path of a program.
ExitCode identify(const std::string& subject, bool asJSON, const Console& console);

}  // namespace vantryctl
