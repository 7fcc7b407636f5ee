// A command that runs under a rule of its own: in a control group whose name the daemon takes for an application's,
// with a temporary rule for that name. What the command starts is in the group too. Neither the rule nor its end
// can be undone, as they are not the user's settings.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

enum class Way { direct, vpn, blocked };

struct RuledCommand {
    std::string identifier;
    std::string groupPath;  // of a group that was made by hand, without a service manager
    pid_t process = -1;
    std::vector<std::string> notes;  // what the user should know
};

// Gives the rule, which ends by itself after `time`, and starts the command. The caller waits for the
// process, and then calls `endRuleOf`.
enum class CommandKind { run, verify };
Outcome<RuledCommand> startUnderRule(const std::vector<std::string>& words, CommandKind kind,
                                     Way way, std::chrono::seconds time);

// Takes the rule and the group away.
Outcome<> endRuleOf(const RuledCommand& command);

}  // namespace vantryctl
