// The commands that show and change what each application may do, and whether the VPN is up. Each
// change is stored, handed to the daemon, and explained in a line or two: what it does and what it
// doesn't.
#pragma once

#include <string>
#include <vector>

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

ExitCode showRules(bool asJSON, const Console& console);
ExitCode setRule(const std::vector<std::string>& applications, const std::string& route,
                 const Console& console);
ExitCode removeRules(const std::vector<std::string>& applications, const Console& console);
ExitCode setDefaultRoute(const std::string& route, const Console& console);
ExitCode blockApplications(const std::vector<std::string>& applications, const Console& console);
ExitCode unblockApplications(const std::vector<std::string>& applications, const Console& console);

enum class Fallback { vpn, direct };
// `word` is "allow" or "block".
ExitCode setFallback(Fallback fallback, const std::string& word, const Console& console);

ExitCode setVPNState(bool isUp, const Console& console);
// Makes the rules file say what the preferences say, and has the daemon read it.
ExitCode reloadRules(const Console& console);

}  // namespace vantryctl
