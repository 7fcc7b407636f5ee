// The files that the tool shares with the daemon, beside the places that the platform has for both.
#pragma once

#include "Platform/Linux/HostChannel/FixedPlaces.h"

namespace vantryctl {

namespace places {
using namespace platform::places;
inline constexpr const char* rulesFile = "/tmp/org.quillmere.Vantry.rules.json";
inline constexpr const char* activityLog = "/tmp/org.quillmere.Vantry.activitylog.json";
inline constexpr const char* failureFile =
    "/var/lib/group.org.quillmere.Vantry/connection_failures.json";
inline constexpr const char* lockFile = "/var/lib/org.quillmere.Vantry/.lock";
}  // namespace places

inline constexpr const char* rulesChangedNotification = "org.quillmere.Vantry.rulesChanged";

}  // namespace vantryctl
