// The log of flows that the daemon keeps in a file, as the tool reads it.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Extension/ipc/ActivityLogEntryIPC.h"
#include "Host/vantryctl/Outcome.h"
#include "Platform/Common/UUID.h"

namespace vantryctl {

// The entries, in the order in which they joined the log. No file is an empty log.
Outcome<std::vector<vantry::ActivityLogEntryIPC>> readActivityLog();

// Gives out each entry once, however often the log is rewritten.
class LogFollower {
public:
    std::vector<vantry::ActivityLogEntryIPC> newEntries(
        const std::vector<vantry::ActivityLogEntryIPC>& log);

private:
    std::set<platform::UUID> seen;
};

// What the log says of one application.
struct ApplicationActivity {
    std::size_t flows = 0;
    platform::Date lastSeen = platform::Date::distantPast();
    std::string lastDecision;
    std::map<std::string, std::size_t> flowsByRoute;
};
std::map<std::string, ApplicationActivity> activityByApplication(
    const std::vector<vantry::ActivityLogEntryIPC>& log);

// An instant in the user's time zone, in at most 15 letters: "18:04:59", of another day than `now`'s
// "Nov 24 18:04:59", of another year "2025-11-24".
std::string localTime(platform::Date instant, platform::Date now);

}  // namespace vantryctl
