// Runs one command under a rule of its own: in a control group that is an application to the daemon, which gets
// a rule for as long as the command runs.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

struct RunOptions {
    bool isDirect = false;
    bool isOverVPN = false;
    bool isBlocked = false;
    std::optional<std::chrono::seconds> time;  // the rule ends then, also if the command runs on
    std::vector<std::string> words;            // of the command
};

// Gives the command's own exit status, or a failure's.
ExitCode runUnderRule(const RunOptions& options, const Console& console);

}  // namespace vantryctl
