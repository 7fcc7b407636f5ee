// The platform's own logger: what it has to tell the person who runs the machine, apart from the
// lines of the extension.
#pragma once

#include "Platform/Logging.h"

namespace platform {

inline constexpr Logger platformLog{"org.quillmere.Vantry.Platform", "Platform"};

}  // namespace platform
