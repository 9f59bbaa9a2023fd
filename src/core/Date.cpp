#include "core/Date.h"

#include <cmath>

namespace osv {

Date Date::now() { return fromSystemClock(std::chrono::system_clock::now()); }

Date Date::fromSystemClock(std::chrono::system_clock::time_point t) {
    using namespace std::chrono;
    const auto micros = duration_cast<microseconds>(t.time_since_epoch()).count();
    return fromUnixSeconds(double(micros) / 1e6);
}

std::chrono::system_clock::time_point Date::toSystemClock() const {
    using namespace std::chrono;
    const auto micros = std::llround(unixSeconds() * 1e6);
    return system_clock::time_point(duration_cast<system_clock::duration>(microseconds(micros)));
}

std::int64_t Date::unixMilliseconds() const {
    return std::llround(seconds * 1000.0) + referenceDateUnixMilliseconds;
}

}  // namespace osv
