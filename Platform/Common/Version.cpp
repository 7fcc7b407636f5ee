#include "Platform/Common/Version.h"

namespace platform {

std::string_view version() { return VANTRY_VERSION; }

}  // namespace platform
