// Opens files that lie where others may put things too. Whoever can write to such a folder can place
// a link, a pipe or a file of his own under the name that is expected; what is opened here is a
// regular file of somebody who may act as the host application, that strangers cannot write to, and
// opening it never waits. Any thread.
#pragma once

#include <sys/types.h>

#include <string>

#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Result.h"

namespace platform {

// The mode of files that the daemon and its tool make, before the umask.
constexpr mode_t modeOfNewFiles = 0644;

// Opens the file with `flags` (as of open(2); with O_CREAT the mode is `modeOfNewFiles`). Fails with
// the system's error, or with EPERM for a file that is not trusted; only the latter is logged, with one
// line that says why.
Result<FileDescriptor> openTrustedFile(const std::string& path, int flags);

}  // namespace platform
