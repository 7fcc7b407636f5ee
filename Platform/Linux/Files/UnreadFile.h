// Tells that a file which is there could not be read for the machine's sake: no descriptor, no memory, a fault of
// the disk. To the code that asked for it the file is just not there; what had it ask has it ask again.
#pragma once

#include <optional>
#include <string>

namespace platform {

// "PATH: REASON" of the latest such file that this thread asked for since the last call.
std::optional<std::string> takeUnreadFile();

}  // namespace platform
