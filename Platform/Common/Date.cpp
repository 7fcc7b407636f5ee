#include "Platform/Common/Date.h"

#include <chrono>
#include <cmath>
#include <cstdio>

namespace platform {
namespace {

using namespace std::chrono;

// The form has four digits for the year; instants outside of them show as the nearest inside.
constexpr sys_seconds earliest = sys_days(year(0) / January / 1);
constexpr sys_seconds latest = sys_days(year(9999) / December / 31) + 23h + 59min + 59s;

sys_seconds wholeSeconds(Date date) {
    // Cut before the epoch is moved, which would round an instant just before a whole second up to it.
    const double since1970 =
        Date::sinceReferenceDate(std::floor(date.secondsSinceReferenceDate())).secondsSince1970();
    // Written so that NaN takes the first way out.
    if (!(since1970 > static_cast<double>(earliest.time_since_epoch().count()))) return earliest;
    if (since1970 > static_cast<double>(latest.time_since_epoch().count())) return latest;
    return sys_seconds(seconds(static_cast<std::int64_t>(since1970)));
}

}  // namespace

std::string NSISO8601DateFormatter::stringFromDate(Date date) const {
    const auto instant = wholeSeconds(date);
    const auto midnight = floor<days>(instant);
    const year_month_day day(midnight);
    const hh_mm_ss time(instant - midnight);
    char text[64];
    const int length = std::snprintf(
        text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(day.year()),
        static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()),
        static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
        static_cast<int>(time.seconds().count()));
    return std::string(text, static_cast<std::size_t>(length));
}

}  // namespace platform
