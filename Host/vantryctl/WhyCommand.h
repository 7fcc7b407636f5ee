// Says what would become of a new flow of an application at this moment, and why. The daemon answers it with
// the functions that decide, so that the two cannot differ.
#pragma once

#include <string>
#include <vector>

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

struct WhyOptions {
    std::vector<std::string> words;  // PID, FILE or APPLICATION, and where to
    bool isLast = false;             // the newest flow of the log, of that application or of any
    bool isDatagram = false;
    bool asJSON = false;
};

// The exit code says the verdict: `done` over the system's own route, `goesDirectly`, `isBlocked`.
ExitCode explainWhy(const WhyOptions& options, const Console& console);

}  // namespace vantryctl
