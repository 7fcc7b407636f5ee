// Where the tool, the settings service and the daemon meet, beside the places that the platform has for
// all of them.
#pragma once

#include "Platform/Linux/HostChannel/FixedPlaces.h"

namespace vantryhost {

namespace places {
using namespace platform::places;
inline constexpr const char* rulesFile = "/tmp/org.quillmere.Vantry.rules.json";
inline constexpr const char* activityLog = "/tmp/org.quillmere.Vantry.activitylog.json";
inline constexpr const char* failureFile =
    "/var/lib/group.org.quillmere.Vantry/connection_failures.json";
inline constexpr const char* settingsSocket = "/run/org.quillmere.Vantry/settings.sock";
inline constexpr const char* tunnelsFile = "/run/org.quillmere.Vantry/tunnels";
inline constexpr const char* tunnelsOfBefore = "/var/lib/org.quillmere.Vantry/tunnels";
inline constexpr const char* versionsFolder = "/var/lib/org.quillmere.Vantry/versions";
}  // namespace places

inline constexpr const char* rulesChangedNotification = "org.quillmere.Vantry.rulesChanged";

}  // namespace vantryhost
