// Makes flows of its own by each route, looks at what really leaves each interface for a while, and says whether each
// flow left the way that its application's rule says. Fails when one did not, so that a timer can run it. What could
// not be tried, as on a machine without a network, is said and is no failure.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

struct VerifyOptions {
    std::chrono::seconds time{30};
    std::vector<std::string> to;  // where own flows go; empty: to addresses that are no one's
    bool onlyLooks = false;
    bool asJSON = false;
};

ExitCode verify(const VerifyOptions& options, const Console& console);

}  // namespace vantryctl
