#include "Platform/Linux/HostChannel/NotificationTouches.h"

#include <sys/inotify.h>

#include <algorithm>

namespace platform {

const std::uint32_t NotificationTouches::eventMask =
    IN_OPEN | IN_ATTRIB | IN_CLOSE_WRITE | IN_CLOSE_NOWRITE | IN_MOVED_TO;

std::vector<std::string> NotificationTouches::touchedNames(
    const std::vector<FolderWatch::Event>& events) {
    std::vector<std::string> names;
    for (const auto& event : events)
        if (completesTouch(event) && std::ranges::find(names, event.name) == names.end())
            names.push_back(event.name);
    return names;
}

bool NotificationTouches::completesTouch(const FolderWatch::Event& event) {
    if ((event.mask & IN_MOVED_TO) != 0) return true;
    if ((event.mask & IN_OPEN) != 0) {
        touchedSinceOpening[event.name] = false;
        return false;
    }
    const auto open = touchedSinceOpening.find(event.name);
    if ((event.mask & IN_ATTRIB) != 0) {
        if (open != touchedSinceOpening.end()) open->second = true;
        return true;
    }
    const bool isHeard = open != touchedSinceOpening.end() && open->second;
    if (open != touchedSinceOpening.end()) touchedSinceOpening.erase(open);
    return (event.mask & IN_CLOSE_WRITE) != 0 && !isHeard;
}

}  // namespace platform
