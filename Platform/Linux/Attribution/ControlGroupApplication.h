// Desktop environments, flatpak and snap start each application in a control group of its own and
// put the application's identifier in the group's name. This reads it back. Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

// The identifier of the desktop application whose control group `unitName` is; nothing for every
// other group. Known are `app-<launcher>-<ID>-<n>.scope`, `app-<launcher>-<ID>@<n>.service` and
// `app-<launcher>-<ID>-<number>.service`, all with or without the launcher,
// `flatpak-<ID>-<n>.scope`, and `snap.<snap>.<program>...`, whose identifier is
// `snap.<snap>.<program>`.
std::optional<std::string> applicationOfUnit(std::string_view unitName);

// The same for the path of a control group: the innermost group in it that is an application's.
std::optional<std::string> applicationOfControlGroup(std::string_view groupPath);

// The name on the message bus of the program that was started for it, where the path's innermost unit
// is `dbus-<connection>-<name>@<n>.service`. Many such programs are no applications.
std::optional<std::string> busNameOfControlGroup(std::string_view groupPath);

// The control group's path in the text of /proc/PID/cgroup: the unified hierarchy's, or the service
// manager's own where that one is not in use. Empty if there is none.
std::string_view controlGroupPath(std::string_view processGroups);

}  // namespace platform
