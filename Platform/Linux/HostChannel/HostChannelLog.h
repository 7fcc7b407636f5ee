// The logger of everything through which the host application and the machine reach the daemon.
#pragma once

#include "Platform/Logging.h"

namespace platform {

inline constexpr Logger hostChannelLog("org.quillmere.Vantry", "HostChannel");

}  // namespace platform
