// Finds the image file that an AppImage's program runs from. The image is mounted at a place of its
// own each time it is started, and only the account that runs it may look there. Any thread; the answer
// comes from /proc and never waits for a file system.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace platform {

// The path of the image around the program at `path`, in bytes: the executable of the process of that
// account which serves the mount. None if the path lies in no mounted image or no one serves it.
std::optional<std::string> appImageAround(const std::string& path, uid_t account);

}  // namespace platform
