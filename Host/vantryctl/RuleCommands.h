// The commands that show and change what each application may do, and whether the VPN is up. Each
// change is stored, handed to the daemon, and explained in a line or two: what it does and what it
// doesn't.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

ExitCode showRules(bool asJSON, const Console& console);
// With a time, the rule before holds again after it.
ExitCode setRule(const std::vector<std::string>& applications, const std::string& route,
                 std::optional<std::chrono::seconds> time, const Console& console);
ExitCode removeRules(const std::vector<std::string>& applications, const Console& console);
ExitCode setDefaultRoute(const std::string& route, const Console& console);
ExitCode blockApplications(const std::vector<std::string>& applications,
                           std::optional<std::chrono::seconds> time, const Console& console);
ExitCode unblockApplications(const std::vector<std::string>& applications, const Console& console);

enum class Fallback { vpn, direct };
// `word` is "allow" or "block".
// Whether the datagrams of direct applications go directly: "on" or "off".
ExitCode setDirectDatagrams(const std::string& word, const Console& console);
ExitCode setFallback(Fallback fallback, const std::string& word, const Console& console);

// Says by hand whether the VPN is up, or has the settings service say it: by these interfaces, or by every
// tunnel.
ExitCode setVPNState(bool isUp, const Console& console);
ExitCode followVPN(const std::vector<std::string>& interfaces, const Console& console);
// Makes the rules file say what the preferences say, and has the daemon read it.
ExitCode reloadRules(const Console& console);

}  // namespace vantryctl
