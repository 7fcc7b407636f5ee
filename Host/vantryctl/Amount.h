// Numbers of bytes, as people read them.
#pragma once

#include <cstdint>
#include <string>

namespace vantryctl {

// "512 B", "1.5 kB", "23 MB": by thousands, with two digits at least.
std::string bytesText(double bytes);

}  // namespace vantryctl
