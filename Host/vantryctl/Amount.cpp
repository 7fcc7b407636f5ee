#include "Host/vantryctl/Amount.h"

#include <fmt/format.h>

#include <array>
#include <cstddef>

namespace vantryctl {

std::string bytesText(double bytes) {
    constexpr std::array units{"B", "kB", "MB", "GB", "TB"};
    constexpr double step = 1000;
    // What would be rounded up to the next unit belongs to it.
    constexpr double largestShown = 999.5;
    std::size_t unit = 0;
    for (; bytes >= largestShown && unit + 1 < units.size(); ++unit) bytes /= step;
    const int decimals = unit > 0 && bytes < 9.95 ? 1 : 0;
    return fmt::format("{:.{}f} {}", bytes, decimals, units[unit]);
}

}  // namespace vantryctl
