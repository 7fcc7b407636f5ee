// Replaces a file in one step: after a failure at any point the file is the old one or the new one, whole.
// For root, in folders where others may write too.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "Host/settings/Outcome.h"

namespace vantrysettings {

struct FileAccess {
    uid_t owner;
    gid_t group;
    mode_t mode;
};

// Survives a loss of power: the new content is on the disk before it takes the old one's name, and the name
// is on the disk before the call returns, which takes seconds where a disk is slow or busy. The new file gets
// `access`, whatever the caller's umask.
vantryhost::Outcome<> replaceDurably(const std::string& path, std::string_view bytes,
                                     const FileAccess& access);

// Does not wait for the disk: after a loss of power the file may be empty. For what a boot makes again, and what
// can be missed.
vantryhost::Outcome<> replaceUnsynced(const std::string& path, std::string_view bytes,
                                      const FileAccess& access);

// Removes what a process that was killed on the way to replacing the file left beside it.
void removeLeftovers(const std::string& path);

}  // namespace vantrysettings
