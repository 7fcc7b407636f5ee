// Looks at what really leaves each interface for a while, and whether each flow left the way that its application's
// rule says. Fails when one did not, so that a timer can run it.
#pragma once

#include <chrono>

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

struct VerifyOptions {
    std::chrono::seconds time{30};
    bool asJSON = false;
};

ExitCode verify(const VerifyOptions& options, const Console& console);

}  // namespace vantryctl
