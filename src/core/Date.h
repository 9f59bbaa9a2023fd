#pragma once

#include <chrono>
#include <cmath>
#include <compare>
#include <cstdint>
#include <limits>

namespace osv {

// A moment on the timeline, as the files store it: seconds since 2001-01-01 00:00:00 UTC,
// with fraction. Plain value; arithmetic is in seconds.
struct Date {
    double seconds = 0.0;  // since the reference date

    constexpr Date() = default;
    constexpr explicit Date(double secondsSinceReferenceDate) : seconds(secondsSinceReferenceDate) {}

    // Seconds between 1970-01-01 and 2001-01-01.
    static constexpr double referenceDateUnixSeconds = 978307200.0;
    static constexpr std::int64_t referenceDateUnixMilliseconds = 978307200000;

    static constexpr Date distantPast() { return Date(-std::numeric_limits<double>::infinity()); }
    static constexpr Date distantFuture() { return Date(std::numeric_limits<double>::infinity()); }

    static Date now();
    static Date fromSystemClock(std::chrono::system_clock::time_point t);
    std::chrono::system_clock::time_point toSystemClock() const;

    static constexpr Date fromUnixSeconds(double s) { return Date(s - referenceDateUnixSeconds); }
    constexpr double unixSeconds() const { return seconds + referenceDateUnixSeconds; }
    // The form the revalidation files use.
    // Integer arithmetic first, so that whole milliseconds stay exact after the epoch shift.
    static constexpr Date fromUnixMilliseconds(std::int64_t ms) {
        return Date(double(ms - referenceDateUnixMilliseconds) / 1000.0);
    }
    std::int64_t unixMilliseconds() const;

    constexpr Date operator+(double s) const { return Date(seconds + s); }
    constexpr Date operator-(double s) const { return Date(seconds - s); }
    constexpr double operator-(Date other) const { return seconds - other.seconds; }
    constexpr Date& operator+=(double s) {
        seconds += s;
        return *this;
    }
    // The seconds from `earlier` to this moment, to the microsecond. A date of these years
    // holds about a tenth of a microsecond, so the digits beyond are rounding noise
    // (15.4 seconds after a date came out as 15.399999952316284).
    double secondsSince(Date earlier) const { return std::round((seconds - earlier.seconds) * 1e6) / 1e6; }

    constexpr auto operator<=>(const Date&) const = default;
};

}  // namespace osv
