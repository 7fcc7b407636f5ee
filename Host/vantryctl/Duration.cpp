#include "Host/vantryctl/Duration.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

namespace vantryctl {

namespace {

constexpr std::int64_t minute = 60;
constexpr std::int64_t hour = 60 * minute;
constexpr std::int64_t day = 24 * hour;
constexpr std::int64_t longest = 366 * day;

std::int64_t secondsIn(std::string_view unit) {
    if (unit == "s") return 1;
    if (unit == "m") return minute;
    if (unit == "h") return hour;
    if (unit == "d") return day;
    return 0;
}

}  // namespace

std::optional<std::chrono::seconds> durationIn(std::string_view text) {
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const auto unit = secondsIn(text.substr(static_cast<std::size_t>(end - text.data())));
    const std::int64_t seconds = std::int64_t{number} * unit;
    if (error != std::errc{} || seconds <= 0 || seconds > longest) return std::nullopt;
    return std::chrono::seconds(seconds);
}

std::string durationText(std::int64_t seconds) {
    if (seconds < 2 * minute) return fmt::format("{} s", std::max<std::int64_t>(seconds, 0));
    // Two hours are two hours also a second later.
    const auto minutes = (seconds + minute / 2) / minute;
    if (minutes < 2 * hour / minute) return fmt::format("{} min", minutes);
    if (minutes < 2 * day / minute)
        return minutes % 60 == 0 ? fmt::format("{} h", minutes / 60)
                                 : fmt::format("{} h {} min", minutes / 60, minutes % 60);
    return fmt::format("{} days", seconds / day);
}

}  // namespace vantryctl
