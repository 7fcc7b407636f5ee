// What a shell offers when a person asks it to complete an application's identifier.
#pragma once

#include <string>

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

// Prints identifiers, one a line, of the applications that are `kind`: "seen" (they connected lately, or
// have a rule or a block), "ruled" or "blocked". What this user may not read is left out without a word:
// a shell completes in the middle of a line.
ExitCode printNames(const std::string& kind, const Console& console);

}  // namespace vantryctl
