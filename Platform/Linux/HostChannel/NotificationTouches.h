// Tells from the events of a folder's files which of them were touched, once for each touch. A touch
// comes in several shapes: opened for writing and closed, with or without new times in between (the
// shell's `touch` and `>`), new times alone (`utime` on a path), or a file moved to the name. New times
// count at once, also while somebody has the file open, who may keep it so. The kernel makes one event
// of equal neighbours, so openings can't be counted: touches that overlap are heard at least once each
// after they began, some twice. One thread uses it.
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
    void forget() { touchedSinceOpening.clear(); }

private:
    bool completesTouch(const FolderWatch::Event& event);

    // The files that were opened and not closed since, and whether one of them has got new times, so that
    // its closing says nothing more.
    std::map<std::string, bool, std::less<>> touchedSinceOpening;
};

}  // namespace platform
