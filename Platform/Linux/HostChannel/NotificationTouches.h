// Tells from the events of a folder's files which of them were touched, once for each touch. A touch
// comes in several shapes: opened for writing and closed, with or without new times in between (the
// shell's `touch` and `>`), new times alone (`utime` on a path), or a file moved to the name. One
// thread uses it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Platform/Linux/HostChannel/FolderWatch.h"

namespace platform {

class NotificationTouches {
public:
    // The events that `touchedNames` needs to see.
    static const std::uint32_t eventMask;

    // The names that were touched, each once however often, in the order of their first touch. A
    // touch whose last event is still to come counts with the batch that has it.
    std::vector<std::string> touchedNames(const std::vector<FolderWatch::Event>& events);

    // Forgets what is known of open files, after events were lost.
    void forget() { openFiles.clear(); }

private:
    struct OpenFile {
        int openings = 0;
        bool hasNewTimes = false;
    };
    bool completesTouch(const FolderWatch::Event& event);
    bool closes(const FolderWatch::Event& event);

    std::map<std::string, OpenFile, std::less<>> openFiles;
};

}  // namespace platform
