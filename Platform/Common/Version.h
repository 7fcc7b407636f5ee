// The version of this build, as the programs print it. Its one source is the project's version in
// CMakeLists.txt.
#pragma once

#include <string_view>

namespace platform {

std::string_view version();

}  // namespace platform
