// Spans of time as people type and read them: "90s", "30m", "2h", "7d".
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vantryctl {

// No value for any other text, for nothing, and for more than a year.
std::optional<std::chrono::seconds> durationIn(std::string_view text);

// Rounded to what a person wants to know: "1 h 30 min", "45 s".
std::string durationText(std::int64_t seconds);

}  // namespace vantryctl
