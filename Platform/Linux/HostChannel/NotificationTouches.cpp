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
        ++openFiles[event.name].openings;
        return false;
    }
    if ((event.mask & (IN_CLOSE_WRITE | IN_CLOSE_NOWRITE)) != 0) return closes(event);
    const auto open = openFiles.find(event.name);
    if (open == openFiles.end()) return true;
    // Times set on an open file: its closing completes the touch.
    open->second.hasNewTimes = true;
    return false;
}

bool NotificationTouches::closes(const FolderWatch::Event& event) {
    const auto open = openFiles.find(event.name);
    const bool isWritten = (event.mask & IN_CLOSE_WRITE) != 0;
    if (open == openFiles.end()) return isWritten;
    const bool isTouched = isWritten || open->second.hasNewTimes;
    open->second.hasNewTimes = false;
    if (--open->second.openings == 0) openFiles.erase(open);
    return isTouched;
}

}  // namespace platform
