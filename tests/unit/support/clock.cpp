#include "tests/unit/support/clock.h"

#include <cstdlib>

namespace kest {

namespace {

std::optional<std::int64_t> &FixedTime() {
    static std::optional<std::int64_t> time;
    return time;
}

} // namespace

FixedClock::FixedClock(std::int64_t now) {
    Set(now);
}

FixedClock::~FixedClock() {
    FixedTime().reset();
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): only while the object lives
void FixedClock::Set(std::int64_t now) {
    FixedTime() = now;
}

} // namespace kest

// Global: on 32-bit machines the C library's declaration gives the function its name for 64-bit
// time.
extern "C" time_t time(time_t *timer) noexcept {
    timespec real{};
    clock_gettime(CLOCK_REALTIME, &real);
    const time_t now = kest::FixedTime() ? time_t{*kest::FixedTime()} : real.tv_sec;
    if (timer != nullptr)
        *timer = now;
    return now;
}

namespace kest {

LocalZone::LocalZone(const std::string &name) {
    if (const char *zone = std::getenv("TZ"))
        before_ = zone;
    setenv("TZ", name.c_str(), 1);
    tzset();
    if (onChange != nullptr)
        onChange();
}

LocalZone::~LocalZone() {
    if (before_)
        setenv("TZ", before_->c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
    if (onChange != nullptr)
        onChange();
}

std::int64_t Utc(int year, int month, int day, int hour, int minute, int second) {
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    return timegm(&parts);
}

std::tm BrokenDown(int year, int month, int day, int hour, int minute, int second) {
    const time_t when = Utc(year, month, day, hour, minute, second);
    std::tm parts{};
    gmtime_r(&when, &parts);
    return parts;
}

} // namespace kest
