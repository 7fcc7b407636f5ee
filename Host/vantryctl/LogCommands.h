// The commands that show what happened: flows, applications, failures.
#pragma once

#include <cstddef>
#include <string>

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

struct LogOptions {
    bool asJSON = false;
    bool isFollowing = false;
    std::size_t lines = 40;
    std::string application;  // only this one and what is named below it; all if empty
};

// With `isFollowing`, goes on until it is interrupted or no one reads any more.
ExitCode showLog(const LogOptions& options, const Console& console);
ExitCode clearLog(const Console& console);
ExitCode showApplications(bool asJSON, const Console& console);
ExitCode showFailures(bool asJSON, const Console& console);
ExitCode clearFailures(const Console& console);

}  // namespace vantryctl
