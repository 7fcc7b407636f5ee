// Follows what happens to the files of one folder, also across a removal or replacement of the
// folder itself: it is then made again and watched again. One thread uses it; it owns an inotify
// instance, whose descriptor says when `read` has something to tell.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Result.h"

namespace platform {

class FolderWatch {
public:
    // Something happened to a file: its name in the folder and inotify's bits.
    struct Event {
        std::string name;
        std::uint32_t mask;
    };
    struct Batch {
        std::vector<Event> events;
        // Events may have been lost: the queue ran over, or the folder was replaced.
        bool mayHaveMissedSome = false;
    };

    // Makes sure that the folder is there.
    using MakeFolder = std::function<Result<>()>;

    // Has the folder made, if need be, and watches it for the events of `mask`. Whoever makes the
    // object may rely on events from then on, if `isWatching`.
    FolderWatch(std::string folder, MakeFolder makeFolder, std::uint32_t mask);

    // False while the folder cannot be watched: call `read` again after a moment.
    bool isWatching() const { return folderWatch >= 0; }
    // -1 while there is none; it may come with `read`.
    int descriptor() const { return inotify.get(); }

    // Everything that has happened since the last call, in order. Does not wait.
    Batch read();

private:
    void watch();
    Result<> addWatches();
    void stopWatching();
    bool replacesTheFolder(int watch, std::uint32_t mask) const;

    const std::string folder;
    const MakeFolder makeFolder;
    const std::uint32_t mask;
    FileDescriptor inotify;
    int folderWatch = -1;
    int parentWatch = -1;
    bool hasReportedFailure = false;
};

}  // namespace platform
