// Says under which identifier a process or a program is known, which is what rules are given for.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

// The name that rules are given for, and what it rests on.
struct Identity {
    std::string identifier;
    std::string explanation;
};
Outcome<Identity> identityOfProcess(pid_t pid);
Outcome<Identity> identityOfProgram(const std::string& path);

// The process id that a word is; no value for any other word.
std::optional<pid_t> processId(const std::string& text);

// `subject` is a process id or the path of a program.
ExitCode identify(const std::string& subject, bool asJSON, const Console& console);

}  // namespace vantryctl
