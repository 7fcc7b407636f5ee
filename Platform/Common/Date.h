// An instant of the wall clock, in seconds since 2001-01-01T00:00:00Z as a 64-bit float; durations
// are seconds too. Instants may lie in either order: the wall clock can be set back.
#pragma once

#include <compare>
#include <string>

namespace platform {

class Date {
public:
    // Seconds between the epoch of Unix time (1970) and the one used here (2001).
    static constexpr double secondsFrom1970To2001 = 978307200.0;

    constexpr Date() = default;
    static constexpr Date sinceReferenceDate(double seconds) { return Date(seconds); }
    static constexpr Date since1970(double seconds) {
        return Date(seconds - secondsFrom1970To2001);
    }

    // The wall clock. Each platform has its own.
    static Date now();
    // An instant before every other (the first day of year 1): further back than any elapsed time
    // of interest, near enough to compute with.
    static constexpr Date distantPast() { return Date(-63114076800.0); }

    constexpr double secondsSinceReferenceDate() const { return seconds_; }
    constexpr double secondsSince1970() const { return seconds_ + secondsFrom1970To2001; }
    // Seconds from `earlier` to this instant; negative if this one is the earlier.
    constexpr double timeIntervalSince(Date earlier) const { return seconds_ - earlier.seconds_; }

    // The analyser takes the zero that a comparison is compared with for a pointer.
    friend constexpr auto operator<=>(Date, Date) = default;  // NOLINT(modernize-use-nullptr)

private:
    explicit constexpr Date(double seconds) : seconds_(seconds) {}
    double seconds_ = 0;
};

// Formats an instant as ISO 8601 internet date-time in UTC, cut to whole seconds:
// "2026-11-18T09:37:00Z".
class NSISO8601DateFormatter {
public:
    std::string stringFromDate(Date date) const;
};

}  // namespace platform
