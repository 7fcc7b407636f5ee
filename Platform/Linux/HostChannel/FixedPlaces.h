// Where the daemon and the host application meet on this machine, and where the daemon keeps what its
// successor needs. All are built with these paths; no configuration changes them.
#pragma once

namespace platform::places {

inline constexpr const char* runtimeFolder = "/run/org.quillmere.Vantry";
inline constexpr const char* notificationsFolder = "/run/org.quillmere.Vantry/notifications";
inline constexpr const char* messageSocket = "/run/org.quillmere.Vantry/provider.sock";
inline constexpr const char* questionSocket = "/run/org.quillmere.Vantry/questions.sock";
inline constexpr const char* storedRoutesFile = "/run/org.quillmere.Vantry/routes";
inline constexpr const char* strictFilterFile = "/run/org.quillmere.Vantry/strict-filter";
inline constexpr const char* preferencesFolder = "/var/lib/org.quillmere.Vantry";
inline constexpr const char* preferencesFile = "/var/lib/org.quillmere.Vantry/preferences.json";
inline constexpr const char* groupContainer = "/var/lib/group.org.quillmere.Vantry";

}  // namespace platform::places
