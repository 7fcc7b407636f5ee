// The commands that deal with the settings as a whole: trying a change, taking it back, and carrying them
// to another machine.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

// Carries out another command of the tool; what it changes is taken back after `time` unless it is
// confirmed.
ExitCode tryCommand(const std::vector<std::string>& arguments, std::chrono::seconds time,
                    const Console& console);
// Keeps what is on trial.
ExitCode confirmTrial(const Console& console);
// Takes the newest change back.
// Has traffic go as if there were no rules, or by the rules again; kept until it is said otherwise.
ExitCode switchRules(bool areOn, const Console& console);
ExitCode undo(const Console& console);

// Prints the settings as a document that `importSettings` takes, and that stays the same while they do.
ExitCode exportSettings(const Console& console);

struct ImportOptions {
    std::string file;
    bool isAgreed = false;  // do it without asking
    bool isDryRun = false;  // only show what would change
};
// Shows what would change and, if the user agrees, replaces the settings by those in the file.
ExitCode importSettings(const ImportOptions& options, const Console& console);

}  // namespace vantryctl
